#pragma once
// Unix-domain stream sockets for the long-running service and its clients: a listening socket
// bound to a path, accepted connections, and outgoing connections. Every wait takes a time
// limit, so a peer that stops reading or writing can never hold a thread forever.
//
// One object belongs to one thread at a time, except `shutdown`, which another thread may call
// to wake a thread blocked in `receiveSome` or `sendAll` on the same socket.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>

#include "tarvolin/platform/FileDescriptor.h"

namespace tarvolin::platform {

/// Who is at the other end of a connected socket, as the kernel saw it when it connected.
struct PeerCredentials {
  int64_t processID = 0;
  uint32_t userID = 0;
  uint32_t groupID = 0;

  friend bool operator==(const PeerCredentials&, const PeerCredentials&) = default;
};

/// The user this process runs as (the real uid).
uint32_t currentUserID();

/// True when a connection from `peer` may be served by a process running as `ownUserID`: only
/// the same user. Kept apart from the socket so the rule can be checked without a second user.
inline bool isSameUser(const PeerCredentials& peer, uint32_t ownUserID) {
  return peer.userID == ownUserID;
}

/// A counter another thread raises to wake `UnixSocket::accept` (an eventfd). Thread-safe.
class StopEvent {
 public:
  /// Throws std::system_error.
  StopEvent();
  /// Wakes every current and later wait on this object.
  void signal() const;
  int get() const { return fd_.get(); }

 private:
  FileDescriptor fd_;
};

class UnixSocket {
 public:
  /// What one receive produced.
  enum class Received { data, closed, timedOut };

  UnixSocket() = default;
  UnixSocket(UnixSocket&&) noexcept = default;
  UnixSocket& operator=(UnixSocket&&) noexcept = default;

  /// A socket listening at `path` with mode 0600 (it is created with that mode, never wider).
  /// `path` must not exist. Throws std::system_error (also for a path longer than the 107
  /// bytes a socket address holds).
  static UnixSocket listen(const std::filesystem::path& path, int backlog);
  /// A connection to the socket at `path`; nothing when no one listens there (no file, not a
  /// socket, connection refused). Throws std::system_error for other failures.
  static std::optional<UnixSocket> connect(const std::filesystem::path& path);

  /// The next connection, or nothing once `stop` has been signalled. Interrupted and
  /// transient failures (a peer that left before being accepted, out of descriptors) are
  /// retried after a short pause. The connection is blocking; its waits go through poll.
  std::optional<UnixSocket> accept(const StopEvent& stop) const;

  /// The credentials of the connected peer (SO_PEERCRED). Throws std::system_error.
  PeerCredentials peerCredentials() const;

  /// Waits up to `timeoutMs` (negative: forever) for bytes and reads what is there into
  /// `buffer`; `bytesRead` is set for `data`. A reset connection counts as `closed`.
  Received receiveSome(std::span<uint8_t> buffer, int timeoutMs, size_t& bytesRead) const;
  /// Sends every byte, waiting at most `timeoutMs` for the peer to make room each time; false
  /// when the peer is gone or did not read in time. Never raises SIGPIPE.
  bool sendAll(std::span<const uint8_t> bytes, int timeoutMs) const;
  /// Ends both directions; a thread blocked on this socket wakes up. Safe from any thread.
  void shutdown() const;

  bool valid() const { return fd_.valid(); }

 private:
  explicit UnixSocket(FileDescriptor fd) : fd_(std::move(fd)) {}

  FileDescriptor fd_;
};

}  // namespace tarvolin::platform
