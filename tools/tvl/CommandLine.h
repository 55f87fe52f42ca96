#pragma once
// The one option parser of the commands added beside the original six. Each such command
// describes itself with a CommandSyntax (usage line, summary, options, how many operands) and
// calls parseOptions on its words. Every command gets "--help"/"-h" (the description on
// standard output, status 0) and "--json" for free; a usage error prints the problem and the
// usage line on standard error and ends the run with status 2.
//
// Accepted forms: "--name", "--name VALUE", "--name=VALUE", "-x", "-x VALUE", "-xVALUE";
// "--" ends the options; a lone "-" is an operand. Options may follow operands.

#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tvl {

struct OptionSyntax {
  std::string_view name;         // long name without the dashes, e.g. "limit"
  char shortName = 0;            // e.g. '0' for "-0"; 0 when there is none
  std::string_view valueName;    // empty for a flag; e.g. "N" for "--limit N"
  std::string_view description;  // one line for --help
};

struct CommandSyntax {
  std::string_view usage;        // "tvl volumes [--json]"
  std::string_view description;  // what the command does, printed by --help
  std::span<const OptionSyntax> options;
  size_t minOperands = 0;
  size_t maxOperands = std::numeric_limits<size_t>::max();
};

class ParsedOptions {
 public:
  /// True when the flag or option was given at least once.
  bool has(std::string_view name) const;
  /// The value of the last occurrence of the option, or nothing.
  std::optional<std::string> value(std::string_view name) const;
  /// The values of every occurrence, in order.
  std::vector<std::string> values(std::string_view name) const;
  /// The option's value as a count; a usage error when it is not a decimal number up to `max`.
  std::optional<uint64_t> count(std::string_view name,
                                uint64_t max = std::numeric_limits<uint32_t>::max()) const;
  bool json() const { return has("json"); }
  const std::vector<std::string>& operands() const { return operands_; }

 private:
  friend ParsedOptions parseOptions(const CommandSyntax&, const std::vector<std::string>&);
  const CommandSyntax* syntax_ = nullptr;
  std::vector<std::pair<std::string, std::string>> given_;  // name, value ("" for flags)
  std::vector<std::string> operands_;
};

/// Parses `words` against `syntax`. "--help" prints the description and ends the run with
/// status 0; anything unknown or malformed is a usage error (status 2).
ParsedOptions parseOptions(const CommandSyntax& syntax, const std::vector<std::string>& words);

/// Prints "tvl: PROBLEM" and the usage line on standard error and ends the run with status 2.
[[noreturn]] void usageError(const CommandSyntax& syntax, std::string_view problem);

/// One JSON value as compact text, invalid UTF-8 replaced, non-ASCII kept as UTF-8.
std::string jsonText(const nlohmann::json& value);

}  // namespace tvl
