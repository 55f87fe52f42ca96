// tvl estimate: about how many entries a scan of every local file system meets (the inodes in
// use), and the file systems the figure comes from. Status 1 when there is no estimate.

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "Commands.h"
#include "Output.h"
#include "tarvolin/scan/FilesystemEstimate.h"

namespace tvl {
namespace {

constexpr CommandSyntax kSyntax{
    "tvl estimate [--json]",
    "Estimates how many entries a scan of every local file system will find: the sum of the\n"
    "inodes in use on each local file system (network, FUSE and kernel file systems are not\n"
    "asked, and a file system mounted twice counts once). Prints the estimate, then each file\n"
    "system's count and mount point. Exits with status 1 when there is no estimate.",
    {},
    0,
    0};

}  // namespace

int runEstimate(const Context& context) {
  ParsedOptions options = parseOptions(kSyntax, context.words);
  std::vector<tarvolin::VolumeSample> samples = tarvolin::FilesystemEstimate::mountedVolumes();
  std::optional<int64_t> estimate =
      tarvolin::FilesystemEstimate::usedInodes([&samples] { return std::optional(samples); });

  if (options.json()) {
    nlohmann::json document = {{"entries", nullptr}, {"samples", nlohmann::json::array()}};
    if (estimate) document["entries"] = *estimate;
    for (const tarvolin::VolumeSample& sample : samples) {
      document["samples"].push_back({{"mountPoint", sample.mountPoint},
                                     {"usedInodes", sample.usedInodes},
                                     {"isLocal", sample.isLocal}});
    }
    output::line(jsonText(document));
    return estimate ? 0 : 1;
  }
  if (!estimate) {
    output::errorLine("tvl: no estimate: no local file system reports inodes in use");
    return 1;
  }
  output::format("%lld entries, from the inodes in use on %zu local file system%s:\n",
                 static_cast<long long>(*estimate), samples.size(), samples.size() == 1 ? "" : "s");
  size_t width = 0;
  for (const tarvolin::VolumeSample& sample : samples) {
    width = std::max(width, std::to_string(sample.usedInodes).size());
  }
  for (const tarvolin::VolumeSample& sample : samples) {
    output::format("  %*lld  ", static_cast<int>(width), static_cast<long long>(sample.usedInodes));
    output::line(output::printable(sample.mountPoint));
  }
  return 0;
}

}  // namespace tvl
