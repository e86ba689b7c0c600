// brenthaven/platform/logtext.h - what may stand on a line of the log.
#pragma once
#include <string>
#include <string_view>

// A line as it goes to the log: each byte below 0x20 and 0x7f as "\xNN", so that a name or an address from outside can
// neither make a line of its own nor steer a terminal. Of more than kLongestLogText bytes the rest is left out, which
// "..." at the end tells; so a line also goes to a pipe in one piece.
inline constexpr size_t kLongestLogText = 1000;
std::string LogText(std::string_view text);
