// tests/support/masked.h - what differs from run to run in a message of ours, put out of the way.
#pragma once
#include <regex>
#include <string>

// The text with DATE, NAME and BOUNDARY in the places of dates, names of new messages, and MIME boundaries.
inline std::string Masked(std::string text) {
  static std::regex const date("[A-Z][a-z]{2}, [0-9]{1,2} [A-Z][a-z]{2} [0-9]{4} [0-9:]{8} [-+][0-9]{4}");
  static std::regex const name("[0-9]{17}\\.[A-Z]{3,4}[0-9]+@mail\\.example\\.org");
  static std::regex const boundary("={27}_ _= [0-9]+\\([0-9]+\\)");
  text = std::regex_replace(text, date, "DATE");
  text = std::regex_replace(text, name, "NAME");
  return std::regex_replace(text, boundary, "BOUNDARY");
}
