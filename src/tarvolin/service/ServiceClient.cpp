#include "tarvolin/service/ServiceClient.h"

#include <system_error>
#include <vector>

namespace tarvolin {

std::optional<ServiceClient> ServiceClient::connect(const std::filesystem::path& socketPath) {
  try {
    std::optional<platform::UnixSocket> socket = platform::UnixSocket::connect(socketPath);
    if (!socket) return std::nullopt;
    return ServiceClient(std::move(*socket));
  } catch (const std::system_error&) {
    return std::nullopt;
  }
}

bool ServiceClient::receiveExactly(std::span<uint8_t> buffer) {
  size_t done = 0;
  while (done < buffer.size()) {
    size_t received = 0;
    if (socket_.receiveSome(buffer.subspan(done), answerTimeoutMs, received) !=
        platform::UnixSocket::Received::data) {
      return false;
    }
    done += received;
  }
  return true;
}

std::optional<ServiceProtocol::Answer> ServiceClient::ask(const ServiceProtocol::Request& request) {
  if (!socket_.valid()) return std::nullopt;
  std::vector<uint8_t> bytes = ServiceProtocol::frame(ServiceProtocol::encodeRequest(request));
  std::array<uint8_t, ServiceProtocol::frameHeaderBytes> header;
  std::optional<ServiceProtocol::Answer> answer;
  if (socket_.sendAll(bytes, answerTimeoutMs) && receiveExactly(header)) {
    uint32_t length = ServiceProtocol::frameLength(header);
    if (length <= ServiceProtocol::maxAnswerBytes) {
      std::vector<uint8_t> payload(length);
      if (receiveExactly(payload)) answer = ServiceProtocol::decodeAnswer(payload);
    }
  }
  if (!answer) socket_ = platform::UnixSocket();
  return answer;
}

}  // namespace tarvolin
