// The required run of a pattern, or one of the run's partners, is in every text the pattern
// matches. Two checks per input:
//   - Raw: the input is a pattern, optionally followed by a NUL byte and a subject. Any bytes
//     must be analysed without crashing; when the expression engine matches the subject, the
//     ASCII-folded subject must contain the run, or the subject a partner of the run.
//   - Generated: the input drives a small grammar that builds a pattern together with a text
//     it matches (literals, escapes, classes, groups, alternatives, quoted text, comments,
//     quantifiers), so the check sees real matches on every run, not only when the fuzzer
//     happens to guess a subject.
// Raw input is matched by the engine in byte mode (ASCII case folding), since it may be any
// bytes, and, when pattern and subject are both well-formed UTF-8, also by the library's own
// expressions, as names are matched. Generated input is matched by the library's expressions;
// its subjects spell "k" and "s" now and then as U+212A (Kelvin sign) and U+017F (long s), which
// those expressions match caselessly and which are those letters' partners. A run is lower-case,
// and it has partners exactly when it holds a byte the engine folds beyond ASCII.

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <algorithm>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tarvolin/platform/Regex.h"
#include "tarvolin/platform/Unicode.h"
#include "tarvolin/query/RegexLiteral.h"

using namespace tarvolin;

namespace {

bool matchesBytes(std::string_view pattern, std::string_view subject) {
  int error = 0;
  PCRE2_SIZE offset = 0;
  pcre2_code* code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.data()), pattern.size(),
                                   PCRE2_CASELESS, &error, &offset, nullptr);
  if (code == nullptr) return false;
  pcre2_match_context* context = pcre2_match_context_create(nullptr);
  pcre2_set_match_limit(context, 20000);
  pcre2_set_depth_limit(context, 2000);
  pcre2_match_data* data = pcre2_match_data_create_from_pattern(code, nullptr);
  int result = pcre2_match(code, reinterpret_cast<PCRE2_SPTR>(subject.data()), subject.size(), 0, 0,
                           data, context);
  pcre2_match_data_free(data);
  pcre2_match_context_free(context);
  pcre2_code_free(code);
  return result >= 0;
}

std::string asciiFolded(std::string_view text) {
  std::string folded(text);
  for (char& c : folded) c = (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c;
  return folded;
}

// Whether `subject` holds `run` (ASCII-folded) or one of its partners.
bool holdsRunOrPartner(std::string_view subject, const std::string& run,
                       const std::vector<std::string>& partners) {
  if (asciiFolded(subject).find(run) != std::string::npos) return true;
  return std::any_of(partners.begin(), partners.end(), [subject](const std::string& partner) {
    return subject.find(partner) != std::string_view::npos;
  });
}

void checkRaw(std::string_view input) {
  size_t split = input.find('\0');
  std::string_view pattern = input.substr(0, split);
  std::optional<std::string> run = RegexLiteral::required(pattern);
  (void)RegexLiteral::containsAlternation(pattern);
  if (!run) return;
  if (run->size() < 2) __builtin_trap();
  const std::bitset<128>& beyond = RegexLiteral::caselessBeyondAscii();
  bool foldsBeyond = false;
  for (char c : *run) {
    auto code = static_cast<unsigned char>(c);
    if (c >= 'A' && c <= 'Z') __builtin_trap();
    foldsBeyond = foldsBeyond || (code < 128 && beyond[code]);
  }
  std::vector<std::string> partners = RegexLiteral::partners(*run);
  if (partners.empty() == foldsBeyond) __builtin_trap();
  for (const std::string& partner : partners) {
    if (partner.empty() || static_cast<unsigned char>(partner[0]) < 0x80) __builtin_trap();
  }
  if (split == std::string_view::npos || pattern.size() > 2000) return;
  std::string_view subject = input.substr(split + 1);
  if (holdsRunOrPartner(subject, *run, partners)) return;
  if (matchesBytes(pattern, subject)) __builtin_trap();
  if (platform::isValidUtf8(pattern) && platform::isValidUtf8(subject)) {
    std::optional<platform::Regex> regex = platform::Regex::compile(pattern);
    if (regex && regex->search(subject)) __builtin_trap();
  }
}

// Builds a pattern and a text it matches from the fuzzer's bytes.
class Generator {
 public:
  Generator(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  void sequence(int depth, std::string& pattern, std::string& subject) {
    int items = 1 + next() % 5;
    for (int k = 0; k < items && !exhausted(); ++k) item(depth, pattern, subject);
  }

 private:
  uint8_t next() { return at_ < size_ ? data_[at_++] : 0; }
  bool exhausted() const { return at_ >= size_ || patternBudget_ <= 0; }

  char letter() { return static_cast<char>("abcksxyzABCKSXYZ019_-"[next() % 21]); }

  // How a subject spells a literal of the pattern: itself, in the other case, or for "k" and
  // "s" the non-ASCII characters that caseless matching takes for them.
  void spell(char c, std::string& subject) {
    uint8_t choice = next() % 4;
    if (choice == 1 && (c | 0x20) == 'k') {
      subject += "\xE2\x84\xAA";
    } else if (choice == 1 && (c | 0x20) == 's') {
      subject += "\xC5\xBF";
    } else if (choice >= 2 && ((c | 0x20) >= 'a' && (c | 0x20) <= 'z')) {
      subject += static_cast<char>(c ^ 0x20);
    } else {
      subject += c;
    }
  }

  void item(int depth, std::string& pattern, std::string& subject) {
    --patternBudget_;
    std::string atomPattern, atomSubject;
    bool quantifiable = atom(depth, atomPattern, atomSubject);
    pattern += atomPattern;
    if (!quantifiable) {
      subject += atomSubject;
      return;
    }
    uint8_t choice = next();
    // Sometimes put what the engine ignores between an atom and its quantifier.
    if (choice & 0x80) pattern += (choice & 0x40) ? "\\E" : ((choice & 0x20) ? "(?#c)" : "\\Q\\E");
    int copies = 1;
    switch (choice % 10) {
      case 0:
        pattern += "?";
        copies = next() % 2;
        break;
      case 1:
        pattern += "*";
        copies = next() % 3;
        break;
      case 2:
        pattern += "+";
        copies = 1 + next() % 2;
        break;
      case 3:
        copies = 1 + next() % 3;
        pattern += "{" + std::to_string(copies) + "}";
        break;
      case 4:
        copies = 1 + next() % 2;
        pattern += "{" + std::to_string(copies) + ",}";
        break;
      case 5:
        copies = next() % 2;
        pattern += "{0," + std::to_string(1 + copies) + "}";
        break;
      case 6:
        copies = 0;
        pattern += "{0}";
        break;
      default:
        break;  // no quantifier
    }
    if (choice % 10 <= 5 && (next() & 1)) pattern += "?";  // lazy
    for (int k = 0; k < copies; ++k) subject += atomSubject;
  }

  // One atom; returns whether a quantifier may follow it.
  bool atom(int depth, std::string& pattern, std::string& subject) {
    uint8_t choice = next() % (depth < 3 ? 16 : 11);
    switch (choice) {
      case 0:
      case 1:
      case 2: {  // a literal, in the other case half of the time
        char c = letter();
        pattern += c;
        spell(c, subject);
        return true;
      }
      case 3: {  // an escaped metacharacter
        char c = ".+*?()[]{}|^$\\/-#"[next() % 18];
        pattern += '\\';
        pattern += c;
        subject += c;
        return true;
      }
      case 4: {  // a class, possibly negated or starting with "]"
        switch (next() % 4) {
          case 0:
            pattern += "[]xy]";
            subject += "]";
            break;
          case 1:
            pattern += "[^]xy]";
            subject += "q";
            break;
          case 2:
            pattern += "[[:digit:]ab]";
            subject += "7";
            break;
          default:
            pattern += "[a-c\\]|(]";
            subject += "|";
            break;
        }
        return true;
      }
      case 5: {  // escaped classes and escapes with arguments
        static const char* const escapes[][2] = {
            {"\\d", "7"},     {"\\w", "q"},       {"\\s", " "},      {"\\x41", "A"},
            {"\\x{42}", "B"}, {"\\cA", "\x01"},   {"\\o{103}", "C"}, {"\\p{Lu}", "Q"},
            {"\\pL", "z"},    {"\\N{U+44}", "D"}, {"\\e", "\x1b"},   {"\\c[", "\x1b"},
        };
        const auto& escape = escapes[next() % 12];
        pattern += escape[0];
        subject += escape[1];
        return true;
      }
      case 6: {  // quoted text, metacharacters included; a quantifier would take its last byte
        pattern += "\\Q";
        int length = next() % 5;
        for (int k = 0; k < length; ++k) {
          char c = "abks.*(|x?"[next() % 10];
          pattern += c;
          spell(c, subject);
        }
        pattern += "\\E";
        return false;
      }
      case 7:
        pattern += '.';
        subject += 'x';
        return true;
      case 8:
        pattern += "(?#a|b[)";
        return false;
      case 9:
        pattern += "\xC3\xA9";  // é
        subject += "\xC3\xA9";
        return true;
      case 10:  // CR LF is one character to the analysis, two to the engine
        pattern += "\r\n";
        subject += "\r\n";
        return false;
      case 11:
      case 12: {  // a group
        pattern += (choice == 11) ? "(" : "(?:";
        sequence(depth + 1, pattern, subject);
        pattern += ")";
        return true;
      }
      case 13: {  // alternatives
        std::string first, firstSubject, second, secondSubject;
        sequence(depth + 1, first, firstSubject);
        sequence(depth + 1, second, secondSubject);
        pattern += "(" + first + "|" + second + ")";
        subject += (next() & 1) ? firstSubject : secondSubject;
        return true;
      }
      case 14: {  // a named group used again
        pattern += "(?<n" + std::to_string(groups_) + ">ab)\\k<n" + std::to_string(groups_) + ">";
        ++groups_;
        subject += "abab";
        return false;
      }
      default:
        pattern += "(?i)";
        return false;
    }
  }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t at_ = 0;
  int patternBudget_ = 40;
  int groups_ = 0;
};

void checkGenerated(const uint8_t* data, size_t size) {
  Generator generator(data, size);
  std::string pattern, subject;
  generator.sequence(0, pattern, subject);
  std::string text = "<" + subject + ">";
  std::optional<platform::Regex> regex = platform::Regex::compile(pattern);
  if (!regex || !regex->search(text)) return;  // a generator slip, not a finding
  std::optional<std::string> run = RegexLiteral::required(pattern);
  if (run && !holdsRunOrPartner(text, *run, RegexLiteral::partners(*run))) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  checkRaw(std::string_view(reinterpret_cast<const char*>(data), size));
  checkGenerated(data, size);
  return 0;
}
