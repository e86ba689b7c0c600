// tests/support/dnsbytes.h - pieces of DNS messages, sound or not, for the tests to put together.
#pragma once
#include <array>
#include <string>
#include <string_view>

inline std::string DnsNumber(int value) { return {static_cast<char>(value >> 8), static_cast<char>(value)}; }

// A reply's header without errors; the ID is 0 until a server puts in that of a query.
inline std::string DnsHeader(std::array<int, 4> counts, int code = 0) {
  std::string header = std::string("\0\0\x81", 3) + static_cast<char>(0x80 | code);
  for (int count : counts) header += DnsNumber(count);
  return header;
}

inline std::string DnsName(std::string_view name) {
  std::string bytes;
  while (!name.empty()) {
    std::string_view const label = name.substr(0, name.find('.'));
    bytes += static_cast<char>(label.size());
    bytes += label;
    name.remove_prefix(std::min(label.size() + 1, name.size()));
  }
  return bytes + '\0';
}

inline std::string DnsQuestion(std::string_view name) { return DnsName(name) + DnsNumber(15) + DnsNumber(1); }

// The name comes as bytes, so that it may be a pointer.
inline std::string DnsRecord(std::string const &name, int type, std::string const &data) {
  return name + DnsNumber(type) + DnsNumber(1) + std::string(4, '\0') + DnsNumber(static_cast<int>(data.size())) + data;
}

inline std::string DnsMx(std::string const &name, int preference, std::string const &exchange) {
  return DnsRecord(name, 15, DnsNumber(preference) + exchange);
}
