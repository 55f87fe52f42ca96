// tvl volumes: the local volumes that could be scanned or catalogued, one a line (mount path,
// name, UUID, capacity, internal or external, backup destination), or one JSON array.

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "Commands.h"
#include "Output.h"
#include "tarvolin/scan/VolumeEnumerator.h"

namespace tvl {
namespace {

constexpr OptionSyntax kOptions[] = {
    {"no-probe", 0, "", "do not list volume roots to find backup stores (reports \"no\")"},
};

constexpr CommandSyntax kSyntax{
    "tvl volumes [--no-probe] [--json]",
    "Lists the local volumes: \"/\" first, then every mounted disk file system by mount path,\n"
    "one a line with its mount path, name, UUID, capacity, whether the disk is internal or\n"
    "external, and whether the volume holds a backup store. Network, FUSE and system mounts\n"
    "are left out.",
    kOptions, 0, 0};

// Terminal columns of UTF-8 text: one per character (continuation bytes take none).
size_t columns(std::string_view text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  }));
}

std::string capacityText(const std::optional<int64_t>& bytes) {
  if (!bytes) return "-";
  static constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  auto value = static_cast<double>(*bytes);
  size_t unit = 0;
  while (value >= 1024 && unit + 1 < std::size(kUnits)) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  if (unit == 0) {
    std::snprintf(text, sizeof text, "%lld B", static_cast<long long>(*bytes));
  } else {
    std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
  }
  return text;
}

void printText(const std::vector<tarvolin::MountedVolume>& volumes) {
  std::vector<std::vector<std::string>> rows = {
      {"MOUNT PATH", "NAME", "UUID", "CAPACITY", "DISK", "BACKUP"}};
  for (const tarvolin::MountedVolume& volume : volumes) {
    rows.push_back({output::printable(volume.mountPath), output::printable(volume.name),
                    output::printable(volume.uuid), capacityText(volume.totalBytes),
                    volume.isInternal ? "internal" : "external",
                    volume.isTimeMachineDestination ? "yes" : "no"});
  }
  std::vector<size_t> widths(rows[0].size(), 0);
  for (const auto& row : rows) {
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], columns(row[i]));
  }
  constexpr size_t kCapacityColumn = 3;  // numbers line up on the right
  for (const auto& row : rows) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
      std::string padding(widths[i] - columns(row[i]), ' ');
      if (i > 0) line += "  ";
      if (i == kCapacityColumn) {
        line += padding + row[i];
      } else {
        line += row[i];
        if (i + 1 < row.size()) line += padding;
      }
    }
    output::line(line);
  }
}

void printJson(const std::vector<tarvolin::MountedVolume>& volumes) {
  nlohmann::json list = nlohmann::json::array();
  for (const tarvolin::MountedVolume& volume : volumes) {
    nlohmann::json entry = {
        {"mountPath", volume.mountPath}, {"name", volume.name}, {"uuid", volume.uuid}};
    if (volume.totalBytes) entry["totalBytes"] = *volume.totalBytes;
    entry["isInternal"] = volume.isInternal;
    entry["isBootVolume"] = volume.isBootVolume();
    entry["isTimeMachineDestination"] = volume.isTimeMachineDestination;
    list.push_back(std::move(entry));
  }
  output::line(jsonText(list));
}

}  // namespace

int runVolumes(const Context& context) {
  ParsedOptions options = parseOptions(kSyntax, context.words);
  if (options.has("no-probe")) tarvolin::VolumeEnumerator::setProbesVolumeRoots(false);
  std::vector<tarvolin::MountedVolume> volumes = tarvolin::VolumeEnumerator::mountedVolumes();
  if (options.json()) {
    printJson(volumes);
  } else {
    printText(volumes);
  }
  return 0;
}

}  // namespace tvl
