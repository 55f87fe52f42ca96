#include "tarvolin/service/ServiceServer.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <system_error>
#include <vector>

#include "tarvolin/service/ServiceConnection.h"
#include "tarvolin/service/ServiceProtocol.h"

namespace tarvolin {

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kBacklog = 64;
constexpr size_t kReceiveChunk = 16 * 1024;

int millisecondsUntil(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return static_cast<int>(std::max<int64_t>(left.count(), 0));
}

platform::UnixSocket listenReplacing(const std::filesystem::path& path) {
  std::error_code ignored;
  std::filesystem::remove(path, ignored);
  return platform::UnixSocket::listen(path, kBacklog);
}

}  // namespace

ServiceServer::ServiceServer(std::filesystem::path socketPath, const LiveIndex& index,
                             Limits limits)
    : socketPath_(std::move(socketPath)),
      index_(index),
      limits_(limits),
      listener_(listenReplacing(socketPath_)) {
  acceptThread_ = std::thread([this] { acceptLoop(); });
}

ServiceServer::~ServiceServer() {
  stopping_ = true;
  stop_.signal();
  acceptThread_.join();
  {
    std::lock_guard guard(clientsLock_);
    for (const auto& client : clients_) client->socket.shutdown();
  }
  // No thread adds clients any more; the list can be walked without the lock held.
  for (const auto& client : clients_) client->thread.join();
  clients_.clear();
  std::error_code ignored;
  std::filesystem::remove(socketPath_, ignored);
}

void ServiceServer::reapFinished() {
  for (auto it = clients_.begin(); it != clients_.end();) {
    if ((*it)->finished) {
      (*it)->thread.join();
      it = clients_.erase(it);
    } else {
      ++it;
    }
  }
}

void ServiceServer::acceptLoop() {
  for (;;) {
    std::optional<platform::UnixSocket> socket;
    try {
      socket = listener_.accept(stop_);
    } catch (const std::system_error&) {
      // The listening socket itself failed: nothing more can be accepted.
      return;
    }
    if (!socket) return;
    std::lock_guard guard(clientsLock_);
    reapFinished();
    if (stopping_ || static_cast<int64_t>(clients_.size()) >= limits_.maxConnections) {
      continue;  // refused: the socket closes as it goes out of scope
    }
    auto client = std::make_unique<Client>();
    client->socket = std::move(*socket);
    Client& started = *client;
    clients_.push_back(std::move(client));
    ++connections_;
    try {
      started.thread = std::thread([this, &started] {
        serve(started);
        // The client learns at once that the connection is over, not when the thread is reaped.
        started.socket.shutdown();
        --connections_;
        started.finished = true;
      });
    } catch (const std::system_error&) {
      --connections_;
      clients_.pop_back();
    }
  }
}

void ServiceServer::serve(Client& client) {
  const platform::UnixSocket& socket = client.socket;
  try {
    if (!platform::isSameUser(socket.peerCredentials(), platform::currentUserID())) return;
  } catch (const std::system_error&) {
    return;
  }
  ServiceConnection connection(index_, [this] { return connectionCount(); });
  auto sendAnswer = [&](const ServiceProtocol::Answer& answer) {
    std::vector<uint8_t> bytes = ServiceProtocol::frame(ServiceProtocol::encodeAnswer(answer));
    return socket.sendAll(bytes, limits_.sendTimeoutMs);
  };

  std::vector<uint8_t> pending;  // bytes received and not yet used
  std::vector<uint8_t> chunk(kReceiveChunk);
  Clock::time_point requestDeadline;
  while (!stopping_) {
    // A complete frame in hand: answer it.
    if (pending.size() >= ServiceProtocol::frameHeaderBytes) {
      uint32_t length = ServiceProtocol::frameLength(
          std::span<const uint8_t, ServiceProtocol::frameHeaderBytes>(pending.data(), 4));
      if (length == 0 || length > ServiceProtocol::maxRequestBytes) {
        sendAnswer(ServiceProtocol::ErrorAnswer{
            std::string(describe(ServiceProtocol::RequestError::malformed)), false});
        return;
      }
      size_t frameBytes = ServiceProtocol::frameHeaderBytes + length;
      if (pending.size() >= frameBytes) {
        auto decoded = ServiceProtocol::decodeRequest(
            std::span<const uint8_t>(pending).subspan(ServiceProtocol::frameHeaderBytes, length));
        pending.erase(pending.begin(), pending.begin() + static_cast<ptrdiff_t>(frameBytes));
        if (const auto* error = std::get_if<ServiceProtocol::RequestError>(&decoded)) {
          sendAnswer(ServiceProtocol::ErrorAnswer{std::string(describe(*error)), false});
          return;
        }
        ServiceProtocol::Answer answer;
        try {
          answer = connection.answer(std::get<ServiceProtocol::Request>(decoded));
        } catch (const std::exception& error) {
          sendAnswer(ServiceProtocol::ErrorAnswer{error.what(), true});
          return;
        }
        if (!sendAnswer(answer)) return;
        if (!pending.empty())
          requestDeadline = Clock::now() + std::chrono::milliseconds(limits_.requestTimeoutMs);
        continue;
      }
    }
    // Wait for more: a new request may take its time, a begun one must finish in time.
    int timeout = pending.empty() ? limits_.idleTimeoutMs : millisecondsUntil(requestDeadline);
    size_t received = 0;
    auto outcome = socket.receiveSome(chunk, timeout, received);
    if (outcome != platform::UnixSocket::Received::data) return;
    if (pending.empty()) {
      requestDeadline = Clock::now() + std::chrono::milliseconds(limits_.requestTimeoutMs);
    }
    pending.insert(pending.end(), chunk.begin(), chunk.begin() + static_cast<ptrdiff_t>(received));
  }
}

}  // namespace tarvolin
