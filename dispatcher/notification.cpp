#include "dispatcher/notification.h"

#include <limits.h>

#include <array>
#include <cstddef>

#include "brenthaven/accounts/constanttime.h"
#include "brenthaven/spool/keys.h"

namespace {

constexpr size_t kMaxNameLength = NAME_MAX - (sizeof kControlSuffix - 1) - (sizeof kTempSuffix - 1);
constexpr size_t kMaxModuleLength = 64;

bool IsControlByte(char c) { return (static_cast<unsigned char>(c) & 0x7F) < 0x20; }

bool IsModuleByte(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' || c == '.';
}

// Exactly five pieces, or false.
bool SplitFields(std::string_view text, std::array<std::string_view, 5> &fields) {
  for (size_t i = 0; i < fields.size(); ++i) {
    size_t const end = text.find('\n');
    bool const last = i + 1 == fields.size();
    if ((end == std::string_view::npos) != last) return false;
    fields[i] = text.substr(0, end);
    if (!last) text.remove_prefix(end + 1);
  }
  return true;
}

}  // namespace

bool IsMessageName(std::string_view name) {
  if (name.empty() || name.size() > kMaxNameLength || name.front() == '.') return false;
  for (char const c : name)
    if (c == '/' || c == '\\' || IsControlByte(c)) return false;
  return true;
}

bool IsModuleName(std::string_view name) {
  if (name.empty() || name.size() > kMaxModuleLength || name.front() == '.' || name.front() == '-') return false;
  for (char const c : name)
    if (!IsModuleByte(c)) return false;
  return true;
}

int ParsePriority(std::string_view text) {
  if (text.size() > 3) return -1;
  if (text.empty()) return kLowestPriority;
  int value = 0;
  for (char const c : text) {
    if (c < '0' || c > '9') return -1;
    value = value * 10 + (c - '0');
  }
  return value;
}

bool ParseNotification(std::string_view datagram, std::string_view key, Notification &result) {
  std::array<std::string_view, 5> fields;
  if (!SplitFields(datagram, fields)) return false;
  auto const [name, sentKey, function, type, priority] = fields;
  if (key.empty() || !SameBytes(sentKey, key)) return false;
  if (!IsMessageName(name) || !IsModuleName(function)) return false;
  if (type != "Mail" && type != "Request" && type != "Error") return false;
  int const value = ParsePriority(priority);
  if (value < 0) return false;
  result = {std::string(name), std::string(function), value};
  return true;
}
