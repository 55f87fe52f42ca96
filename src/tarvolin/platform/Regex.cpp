#include "tarvolin/platform/Regex.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <algorithm>

namespace tarvolin::platform {

namespace {

// Bounds on backtracking. A match may take kMatchBase steps plus kMatchPerByte per byte of the
// subject, at most kMatchLimit: a sensible pattern needs a few steps a byte, while a pattern
// built to backtrack, such as (a+)+$, gives up within about a microsecond per byte instead of
// running for exponential time. The bound grows with the subject, so that a search of one
// million 255-byte names costs seconds, not hours, and a long line still gets its million steps.
constexpr uint32_t kMatchBase = 10'000;
constexpr uint32_t kMatchPerByte = 100;
constexpr uint32_t kMatchLimit = 1'000'000;
constexpr uint32_t kDepthLimit = 10'000;

uint32_t matchLimitFor(size_t subjectBytes) {
  if (subjectBytes >= (kMatchLimit - kMatchBase) / kMatchPerByte) return kMatchLimit;
  return kMatchBase + kMatchPerByte * static_cast<uint32_t>(subjectBytes);
}

struct ThreadState {
  pcre2_match_data* data = nullptr;
  pcre2_match_context* context = nullptr;
  pcre2_jit_stack* stack = nullptr;
  ThreadState() {
    data = pcre2_match_data_create(16, nullptr);
    context = pcre2_match_context_create(nullptr);
    pcre2_set_match_limit(context, kMatchLimit);
    pcre2_set_depth_limit(context, kDepthLimit);
    stack = pcre2_jit_stack_create(32 * 1024, 1024 * 1024, nullptr);
    if (stack) pcre2_jit_stack_assign(context, nullptr, stack);
  }
  ~ThreadState() {
    pcre2_match_data_free(data);
    pcre2_match_context_free(context);
    if (stack) pcre2_jit_stack_free(stack);
  }
};

ThreadState& threadState() {
  thread_local ThreadState state;
  return state;
}

}  // namespace

struct Regex::Code {
  pcre2_code* code = nullptr;
  ~Code() { pcre2_code_free(code); }
};

std::optional<Regex> Regex::compile(std::string_view pattern, Options options) {
  uint32_t flags = PCRE2_UTF | PCRE2_UCP | PCRE2_MATCH_INVALID_UTF;
  if (options.caseless) flags |= PCRE2_CASELESS;
  if (options.multiline) flags |= PCRE2_MULTILINE;
  int error = 0;
  PCRE2_SIZE offset = 0;
  pcre2_code* code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.data()), pattern.size(),
                                   flags, &error, &offset, nullptr);
  if (code == nullptr) return std::nullopt;
  pcre2_jit_compile(code, PCRE2_JIT_COMPLETE);  // falls back to the interpreter if unavailable
  auto holder = std::make_shared<Code>();
  holder->code = code;
  return Regex(std::move(holder));
}

std::optional<std::pair<size_t, size_t>> Regex::find(std::string_view subject, size_t from) const {
  ThreadState& state = threadState();
  pcre2_set_match_limit(state.context,
                        matchLimitFor(subject.size() - std::min(from, subject.size())));
  int rc = pcre2_match(code_->code, reinterpret_cast<PCRE2_SPTR>(subject.data()), subject.size(),
                       from, 0, state.data, state.context);
  if (rc < 0) return std::nullopt;
  PCRE2_SIZE* ovector = pcre2_get_ovector_pointer(state.data);
  return std::make_pair(static_cast<size_t>(ovector[0]), static_cast<size_t>(ovector[1]));
}

bool Regex::search(std::string_view subject) const { return find(subject).has_value(); }

}  // namespace tarvolin::platform
