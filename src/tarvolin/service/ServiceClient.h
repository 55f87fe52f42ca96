#pragma once
// A client's connection to the service: sends requests and reads the answers. Used by the
// commands that can let a running service do their work (`tvl search`, `tvl status`).
//
// One thread at a time.

#include <filesystem>
#include <optional>

#include "tarvolin/platform/UnixSocket.h"
#include "tarvolin/service/ServiceProtocol.h"

namespace tarvolin {

class ServiceClient {
 public:
  /// How long a client waits for each answer before giving up on the service.
  static constexpr int answerTimeoutMs = 30'000;

  /// A connection to the service listening at `socketPath`, or nothing when none listens there.
  /// Costs one failed connect when no service runs. Never throws.
  static std::optional<ServiceClient> connect(const std::filesystem::path& socketPath);

  /// Sends `request` and waits for its answer; nothing when the connection failed, the service
  /// did not answer in time or the answer was not well-formed (the connection is then unusable).
  std::optional<ServiceProtocol::Answer> ask(const ServiceProtocol::Request& request);

 private:
  explicit ServiceClient(platform::UnixSocket socket) : socket_(std::move(socket)) {}
  /// Fills `buffer` entirely from the socket before the deadline; false otherwise.
  bool receiveExactly(std::span<uint8_t> buffer);

  platform::UnixSocket socket_;
};

}  // namespace tarvolin
