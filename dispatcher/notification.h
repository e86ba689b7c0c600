// dispatcher/notification.h - the datagram that tells of a control file: five fields with a line feed between them.
//
//   name LF key LF function LF type LF priority
//
// Whoever can send to the loopback port can send anything, so a field is taken only in the exact form below.
#pragma once
#include <string>
#include <string_view>

struct Notification {
  std::string name;      // message name: the control file's base name without "-Control"
  std::string function;  // the module that is asked for
  int priority;          // 0 is the most urgent; kLowestPriority when the control states none
};

constexpr int kLowestPriority = 999;

// A name that stays inside its directory: no "/", "\" or control byte, no leading ".", and at most so long that its
// control file and that file's temporary name have names that the file system takes. So a datagram is below 400 bytes.
bool IsMessageName(std::string_view name);
// The file name of a module: letters, digits, "-", "_" and ".", no "." or "-" in front, 1 to 64 bytes.
bool IsModuleName(std::string_view name);
// "" or up to three digits; -1 for anything else.
int ParsePriority(std::string_view text);

// True when the datagram has the five fields in good form and the right key, compared in constant time. The type must
// be "Mail", "Request" or "Error". An empty key is never right.
bool ParseNotification(std::string_view datagram, std::string_view key, Notification &result);
