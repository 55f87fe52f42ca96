#pragma once
// The service's socket: accepts clients of the same user on a Unix-domain socket and answers
// their requests from the live index, one thread per connection. Every wait on a client has a
// time limit and the number of connections is bounded, so a slow, stalled or hostile client
// costs one thread for a while and never holds up the others. A connection that sends anything
// but well-formed frames, announces a frame over the request bound, stops halfway through a
// request or leaves before its answer is sent is closed; the service goes on.
//
// Construct and destroy on one thread; `connectionCount` may be called from any thread.

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

#include "tarvolin/platform/UnixSocket.h"
#include "tarvolin/service/LiveIndex.h"

namespace tarvolin {

class ServiceServer {
 public:
  struct Limits {
    int64_t maxConnections = 64;
    /// A connection with no request under way is closed after this long without one.
    int idleTimeoutMs = 10 * 60 * 1000;
    /// A request begun must be complete within this long.
    int requestTimeoutMs = 5000;
    /// A client must take each part of its answer within this long.
    int sendTimeoutMs = 5000;
  };

  /// Listens at `socketPath` (mode 0600; an old file there is replaced: the caller holds the
  /// service lock, so no live service owns it) and starts accepting. Throws std::system_error.
  ServiceServer(std::filesystem::path socketPath, const LiveIndex& index, Limits limits);
  ServiceServer(std::filesystem::path socketPath, const LiveIndex& index)
      : ServiceServer(std::move(socketPath), index, Limits{}) {}
  /// Stops accepting, ends every connection, joins the threads and removes the socket file.
  ~ServiceServer();
  ServiceServer(const ServiceServer&) = delete;
  ServiceServer& operator=(const ServiceServer&) = delete;

  int64_t connectionCount() const { return connections_.load(); }
  const std::filesystem::path& socketPath() const { return socketPath_; }

 private:
  struct Client {
    platform::UnixSocket socket;
    std::thread thread;
    std::atomic<bool> finished = false;
  };

  void acceptLoop();
  void serve(Client& client);
  /// Joins the threads of clients that have left. Called with clientsLock_ held.
  void reapFinished();

  std::filesystem::path socketPath_;
  const LiveIndex& index_;
  Limits limits_;
  platform::UnixSocket listener_;
  platform::StopEvent stop_;
  std::atomic<bool> stopping_ = false;
  std::atomic<int64_t> connections_ = 0;
  std::mutex clientsLock_;
  std::list<std::unique_ptr<Client>> clients_;  // guarded by clientsLock_
  std::thread acceptThread_;                    // last: started once the rest is ready
};

}  // namespace tarvolin
