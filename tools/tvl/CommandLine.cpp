#include "CommandLine.h"

#include <algorithm>
#include <charconv>

#include "Commands.h"
#include "Output.h"

namespace tvl {
namespace {

constexpr OptionSyntax kJson{"json", 0, "", "Print JSON instead of text"};
constexpr OptionSyntax kHelp{"help", 'h', "", "Show this help and exit"};

const OptionSyntax* findLong(const CommandSyntax& syntax, std::string_view name) {
  if (name == kJson.name) return &kJson;
  if (name == kHelp.name) return &kHelp;
  for (const OptionSyntax& option : syntax.options) {
    if (option.name == name) return &option;
  }
  return nullptr;
}

const OptionSyntax* findShort(const CommandSyntax& syntax, char letter) {
  if (letter == kHelp.shortName) return &kHelp;
  for (const OptionSyntax& option : syntax.options) {
    if (option.shortName != 0 && option.shortName == letter) return &option;
  }
  return nullptr;
}

void printHelp(const CommandSyntax& syntax) {
  std::string text =
      "usage: " + std::string(syntax.usage) + "\n\n" + std::string(syntax.description);
  if (!text.ends_with('\n')) text.push_back('\n');
  text += "\noptions:\n";
  auto add = [&text](const OptionSyntax& option) {
    std::string left = "  ";
    if (option.shortName != 0) {
      left.append(1, '-').append(1, option.shortName).append(", ");
    } else {
      left.append(4, ' ');
    }
    left.append("--").append(option.name);
    if (!option.valueName.empty()) left.append(1, ' ').append(option.valueName);
    left.resize(std::max<size_t>(left.size() + 2, 26), ' ');
    text += left + std::string(option.description) + "\n";
  };
  for (const OptionSyntax& option : syntax.options) add(option);
  add(kJson);
  add(kHelp);
  text.pop_back();
  output::line(text);
}

}  // namespace

bool ParsedOptions::has(std::string_view name) const {
  return std::any_of(given_.begin(), given_.end(),
                     [name](const auto& entry) { return entry.first == name; });
}

std::optional<std::string> ParsedOptions::value(std::string_view name) const {
  for (auto entry = given_.rbegin(); entry != given_.rend(); ++entry) {
    if (entry->first == name) return entry->second;
  }
  return std::nullopt;
}

std::vector<std::string> ParsedOptions::values(std::string_view name) const {
  std::vector<std::string> result;
  for (const auto& [given, text] : given_) {
    if (given == name) result.push_back(text);
  }
  return result;
}

std::optional<uint64_t> ParsedOptions::count(std::string_view name, uint64_t max) const {
  std::optional<std::string> text = value(name);
  if (!text) return std::nullopt;
  uint64_t number = 0;
  const char* end = text->data() + text->size();
  auto [stop, error] = std::from_chars(text->data(), end, number);
  if (text->empty() || error != std::errc() || stop != end || number > max) {
    usageError(*syntax_, "--" + std::string(name) + " wants a whole number from 0 to " +
                             std::to_string(max) + ", not \"" + *text + "\"");
  }
  return number;
}

ParsedOptions parseOptions(const CommandSyntax& syntax, const std::vector<std::string>& words) {
  ParsedOptions parsed;
  parsed.syntax_ = &syntax;
  bool optionsEnded = false;
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (optionsEnded || word.size() < 2 || word[0] != '-') {
      parsed.operands_.push_back(word);
      continue;
    }
    if (word == "--") {
      optionsEnded = true;
      continue;
    }
    const OptionSyntax* option = nullptr;
    std::optional<std::string> inlineValue;
    std::string shown;  // the option as the user wrote it, for messages
    if (word.starts_with("--")) {
      std::string_view body = std::string_view(word).substr(2);
      size_t equals = body.find('=');
      if (equals != std::string_view::npos) {
        inlineValue = std::string(body.substr(equals + 1));
        body = body.substr(0, equals);
      }
      shown = "--" + std::string(body);
      option = findLong(syntax, body);
    } else {
      shown = word.substr(0, 2);
      option = findShort(syntax, word[1]);
      if (word.size() > 2) inlineValue = word.substr(2);
      // "-xy" with x a flag is not accepted: flags come one per word, as the help shows them.
      if (option != nullptr && option->valueName.empty() && inlineValue) option = nullptr;
      if (option == nullptr) shown = word;
    }
    if (option == nullptr) usageError(syntax, "unknown option " + shown);
    if (option->name == kHelp.name) {
      printHelp(syntax);
      throw ExitRequest{0};
    }
    std::string text;
    if (!option->valueName.empty()) {
      if (inlineValue) {
        text = *inlineValue;
      } else if (i + 1 < words.size()) {
        text = words[++i];
      } else {
        usageError(syntax, shown + " needs a value (" + std::string(option->valueName) + ")");
      }
    } else if (inlineValue) {
      usageError(syntax, shown + " takes no value");
    }
    parsed.given_.emplace_back(std::string(option->name), std::move(text));
  }
  if (parsed.operands_.size() < syntax.minOperands) usageError(syntax, "missing operand");
  if (parsed.operands_.size() > syntax.maxOperands) {
    usageError(syntax, "unexpected operand \"" + parsed.operands_[syntax.maxOperands] + "\"");
  }
  return parsed;
}

void usageError(const CommandSyntax& syntax, std::string_view problem) {
  output::flush();
  output::errorLine("tvl: " + std::string(problem));
  output::errorLine("usage: " + std::string(syntax.usage));
  throw ExitRequest{2};
}

std::string jsonText(const nlohmann::json& value) {
  return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace tvl
