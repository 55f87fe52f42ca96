// tvl dupes PATH [--limit N] [--json]: the other entries of the name index that look like copies
// of PATH (same kind, same name with ASCII case folded), same-size copies first. Status 1 when
// PATH is not in the index (or the index cannot be used), 2 on a usage error.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "CommandLine.h"
#include "Commands.h"
#include "Output.h"
#include "tarvolin/index/DuplicateFinder.h"
#include "tarvolin/index/IndexStore.h"
#include "tarvolin/index/PathResolver.h"

namespace tvl {
namespace {

constexpr uint64_t kDefaultLimit = 100;

constexpr OptionSyntax kOptions[] = {
    {"limit", 'n', "N", "list at most N copies (default 100)"},
    {"json", 0, "", "print one JSON document"},
};

constexpr CommandSyntax kSyntax{
    "tvl dupes PATH [--limit N] [--json]",
    "Lists the other entries of the name index that look like copies of PATH: files (or\n"
    "folders, when PATH is one) with the same name, compared without regard to the case of\n"
    "ASCII letters. Copies whose size equals PATH's come first, then the others, each group\n"
    "in index order; sizes are those the index holds, shown when it holds them. Only names are\n"
    "compared: no file is opened. Exits with status 1 when PATH is not in the index.",
    kOptions, 1, 1};

// PATH as the index spells it: absolute, without "." or ".." or a trailing "/".
std::string absolutePath(const std::string& path) {
  std::error_code error;
  std::filesystem::path absolute = std::filesystem::absolute(path, error);
  if (error) absolute = path;
  std::string text = absolute.lexically_normal().string();
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  return text;
}

// The record whose path is `path`, not deleted. One pass comparing last names, and the whole
// path only where the last name matches.
std::optional<uint32_t> recordAt(const tarvolin::PathResolver& resolver, const std::string& path) {
  const tarvolin::IndexStore& store = resolver.store();
  std::string_view name = path == "/" ? std::string_view() : std::string_view(path);
  name = name.substr(name.rfind('/') + 1);
  for (uint32_t id = 0; id < store.count(); ++id) {
    if (store[id].nameLen != name.size() || store.nameBytes(id) != name) continue;
    if (store[id].flags.contains(tarvolin::RecordFlags::deleted)) continue;
    if (resolver.absolutePath(id) == path) return id;
  }
  return std::nullopt;
}

std::optional<uint64_t> knownSize(const tarvolin::FileRecord& record) {
  if (!record.flags.contains(tarvolin::RecordFlags::attrsFilled)) return std::nullopt;
  return record.size;
}

nlohmann::json sizeValue(const tarvolin::FileRecord& record) {
  std::optional<uint64_t> size = knownSize(record);
  return size ? nlohmann::json(*size) : nlohmann::json(nullptr);
}

}  // namespace

int runDupes(const Context& context) {
  ParsedOptions options = parseOptions(kSyntax, context.words);
  uint64_t limit = kDefaultLimit;
  if (std::optional<uint64_t> given = options.count("limit")) limit = *given;
  if (limit == 0) usageError(kSyntax, "--limit must be at least 1");

  std::string path = absolutePath(options.operands().front());
  auto store = openIndexOrExit(context);
  tarvolin::PathResolver resolver(store);
  std::optional<uint32_t> id = recordAt(resolver, path);
  if (!id) {
    // A path reached through a symbolic link is indexed under its real location.
    std::error_code error;
    std::filesystem::path real = std::filesystem::canonical(path, error);
    if (!error && real.string() != path) id = recordAt(resolver, real.string());
  }
  if (!id) {
    output::errorLine("tvl: " + path + " is not in the index (" + context.indexPath.string() +
                      "); run `tvl scan` on a folder holding it");
    return 1;
  }

  std::vector<tarvolin::DuplicateFinder::Copy> copies =
      tarvolin::DuplicateFinder::copies(*id, *store, static_cast<int64_t>(limit));
  if (options.json()) {
    nlohmann::json list = nlohmann::json::array();
    for (const auto& copy : copies) {
      list.push_back({{"path", resolver.absolutePath(copy.id)},
                      {"sameSize", copy.sameSize},
                      {"size", sizeValue((*store)[copy.id])}});
    }
    output::line(jsonText({{"path", resolver.absolutePath(*id)},
                           {"size", sizeValue((*store)[*id])},
                           {"copies", std::move(list)}}));
    return 0;
  }
  for (const auto& copy : copies) {
    std::string line = resolver.absolutePath(copy.id);
    if (std::optional<uint64_t> size = knownSize((*store)[copy.id])) {
      line += "\t" + std::to_string(*size);
    }
    output::line(line);
  }
  return 0;
}

}  // namespace tvl
