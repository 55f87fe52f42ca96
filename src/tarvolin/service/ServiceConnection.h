#pragma once
// The service's side of one client connection: answers its requests from the live index. Each
// connection keeps its own matcher, ranker and search session, so a client typing a query one
// character at a time reuses the results of its previous keystroke, and clients never share
// mutable state. When the live index swaps in a newer store, the next request starts over on it.
//
// One thread at a time (the connection's own).

#include <cstdint>
#include <functional>
#include <memory>

#include "tarvolin/index/PathResolver.h"
#include "tarvolin/query/Matcher.h"
#include "tarvolin/query/Ranker.h"
#include "tarvolin/query/SearchSession.h"
#include "tarvolin/service/LiveIndex.h"
#include "tarvolin/service/ServiceProtocol.h"

namespace tarvolin {

class ServiceConnection {
 public:
  /// `connectionCount` reports the server's open connections for status answers.
  ServiceConnection(const LiveIndex& index, std::function<int64_t()> connectionCount);

  /// The answer to one request. Never throws for a request's content.
  ServiceProtocol::Answer answer(const ServiceProtocol::Request& request);

 private:
  ServiceProtocol::Answer search(const ServiceProtocol::SearchRequest& request);
  /// Moves to the live index's current store when it changed since the last request.
  void refresh();

  const LiveIndex& index_;
  std::function<int64_t()> connectionCount_;
  std::shared_ptr<const IndexStore> store_;
  std::unique_ptr<Matcher> matcher_;
  std::unique_ptr<Ranker> ranker_;
  std::unique_ptr<PathResolver> resolver_;
  std::unique_ptr<SearchSession> session_;
};

}  // namespace tarvolin
