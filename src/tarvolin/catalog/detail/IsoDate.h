#pragma once
// ISO 8601 date-times to the second, the form catalog documents store: "2024-03-05T14:07:09Z"
// when written; when read, the same with "Z" or a numeric offset ("+01:00", "-0530"). Strict:
// no fractions, no week or ordinal dates, every field in range. Pure functions, any thread.

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace tarvolin::detail {

/// "YYYY-MM-DDTHH:MM:SSZ" in UTC. Years outside 0000...9999 are clamped to that range's ends.
std::string formatIsoDate(std::chrono::sys_seconds time);

/// The moment a date-time names, or nothing when `text` is not one of the accepted forms.
std::optional<std::chrono::sys_seconds> parseIsoDate(std::string_view text);

}  // namespace tarvolin::detail
