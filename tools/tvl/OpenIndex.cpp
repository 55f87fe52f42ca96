#include <variant>

#include "Commands.h"
#include "Output.h"
#include "tarvolin/index/IndexStore.h"

namespace tvl {

namespace {

std::string messageFor(const tarvolin::RebuildReason& reason, const std::string& path) {
  using Kind = tarvolin::RebuildReason::Kind;
  switch (reason.kind) {
    case Kind::missing:
      return "No index found at " + path + ". Run `tvl scan` to build one.";
    case Kind::corrupt:
      return "Index file is corrupt. Run `tvl scan` to rebuild it.";
    case Kind::truncated:
      return "Index file is incomplete (a previous scan may have been interrupted). Run `tvl "
             "scan` to rebuild it.";
    case Kind::badMagic:
      return "File at " + path + " is not a valid Tarvolin index.";
    case Kind::tooManyVolumes:
      return "Index references more volumes than this build supports. Run `tvl scan` to rebuild "
             "it.";
    case Kind::versionMismatch:
      return "Index format v" + std::to_string(reason.found) + " doesn't match this build (v" +
             std::to_string(reason.expected) + "). Run `tvl scan` to rebuild it.";
  }
  return "Index file is corrupt. Run `tvl scan` to rebuild it.";
}

}  // namespace

std::shared_ptr<const tarvolin::IndexStore> openIndexOrExit(const Context& context) {
  tarvolin::IndexLoadOutcome outcome = tarvolin::loadIndex(context.indexPath);
  if (auto* store = std::get_if<std::shared_ptr<const tarvolin::IndexStore>>(&outcome)) {
    return *store;
  }
  output::errorLine(
      messageFor(std::get<tarvolin::RebuildReason>(outcome), context.indexPath.string()));
  throw ExitRequest{1};
}

}  // namespace tvl
