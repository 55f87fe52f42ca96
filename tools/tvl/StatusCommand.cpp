// tvl status [--json]: whether a service is running for the index, and what it holds: entries,
// when the index last changed and was last written, the watched roots and the watch mode, and
// the service's memory. Status 0 when a service answered, 1 when none runs.

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <variant>

#include "CommandLine.h"
#include "Commands.h"
#include "Output.h"
#include "tarvolin/service/ServiceClient.h"

namespace tvl {

namespace {

constexpr CommandSyntax kSyntax{
    "tvl status [--json]",
    "Says whether a service (`tvl serve`) is running for the index, and reports its index:\n"
    "entries, age of the last change, watched roots, watch mode, and the service's memory.\n"
    "Exits with status 1 when no service is running.",
    {},
    0,
    0};

int64_t secondsNow() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// "42 s", "3 min 12 s", "5 h 7 min", "2 d 4 h".
std::string age(int64_t seconds) {
  seconds = std::max<int64_t>(seconds, 0);
  char text[48];
  if (seconds < 60) {
    std::snprintf(text, sizeof text, "%" PRId64 " s", seconds);
  } else if (seconds < 3600) {
    std::snprintf(text, sizeof text, "%" PRId64 " min %" PRId64 " s", seconds / 60, seconds % 60);
  } else if (seconds < 86400) {
    std::snprintf(text, sizeof text, "%" PRId64 " h %" PRId64 " min", seconds / 3600,
                  seconds % 3600 / 60);
  } else {
    std::snprintf(text, sizeof text, "%" PRId64 " d %" PRId64 " h", seconds / 86400,
                  seconds % 86400 / 3600);
  }
  return text;
}

std::string megabytes(uint64_t bytes) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f MB", static_cast<double>(bytes) / 1e6);
  return text;
}

void printText(const tarvolin::ServiceProtocol::StatusAnswer& status, int64_t now) {
  output::line("Service running (pid " + std::to_string(status.processID) + ", up " +
               age(now - status.startedAt) + ")");
  output::line("  index:        " + status.indexPath);
  output::line("  entries:      " + std::to_string(status.entries) + " (" +
               std::to_string(status.deletedEntries) + " marked deleted)");
  output::line("  index file:   " + megabytes(status.indexFileBytes));
  output::line("  last change:  " + age(now - status.lastChangeAt) + " ago");
  output::line("  last written: " + (status.lastWriteAt == 0
                                         ? std::string("not since start")
                                         : age(now - status.lastWriteAt) + " ago"));
  output::line("  watch mode:   " + status.watchMode);
  for (size_t i = 0; i < status.roots.size(); ++i) {
    output::line((i == 0 ? "  roots:        " : "                ") + status.roots[i]);
  }
  for (size_t i = 0; i < status.unwatched.size(); ++i) {
    output::line((i == 0 ? "  unwatched:    " : "                ") + status.unwatched[i]);
  }
  std::string memory = "  memory:       " + megabytes(status.residentBytes) + " resident";
  if (status.indexFileBytes > 0) {
    char ratio[48];
    std::snprintf(
        ratio, sizeof ratio, " (%.2fx the index file)",
        static_cast<double>(status.residentBytes) / static_cast<double>(status.indexFileBytes));
    memory += ratio;
  }
  output::line(memory);
  output::line("  clients:      " + std::to_string(status.connections));
}

nlohmann::json jsonOf(const tarvolin::ServiceProtocol::StatusAnswer& status, int64_t now) {
  return {{"running", true},
          {"pid", status.processID},
          {"index", status.indexPath},
          {"entries", status.entries},
          {"deletedEntries", status.deletedEntries},
          {"indexFileBytes", status.indexFileBytes},
          {"startedAt", status.startedAt},
          {"lastChangeAt", status.lastChangeAt},
          {"lastChangeAgeSeconds", std::max<int64_t>(now - status.lastChangeAt, 0)},
          {"lastWriteAt", status.lastWriteAt},
          {"watchMode", status.watchMode},
          {"roots", status.roots},
          {"unwatched", status.unwatched},
          {"residentBytes", status.residentBytes},
          {"connections", status.connections}};
}

}  // namespace

int runStatus(const Context& context) {
  ParsedOptions options = parseOptions(kSyntax, context.words);
  namespace protocol = tarvolin::ServiceProtocol;
  std::optional<protocol::Answer> answer;
  if (auto client = tarvolin::ServiceClient::connect(protocol::socketPathFor(context.indexPath))) {
    answer = client->ask(protocol::StatusRequest{});
  }
  const auto* status = answer ? std::get_if<protocol::StatusAnswer>(&*answer) : nullptr;
  if (status == nullptr) {
    if (options.json()) {
      output::line(jsonText({{"running", false}, {"index", context.indexPath.string()}}));
    } else {
      output::line("No service is running for " + context.indexPath.string() + ".");
    }
    return 1;
  }
  int64_t now = secondsNow();
  if (options.json()) {
    output::line(jsonText(jsonOf(*status, now)));
  } else {
    printText(*status, now);
  }
  return 0;
}

}  // namespace tvl
