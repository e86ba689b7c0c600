// tests/store/plainfile.h - B-tree files read by others: the bare engine and the package's dump program.
#pragma once
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <string>

#include "brenthaven/store/db185.h"

using Records = std::map<std::string, std::string>;

inline Records ReadWithEngine(std::string const &path) {
  Records records;
  SBTreeEngine *engine = dbopen(path.c_str(), O_RDONLY, 0, kBTreeType, nullptr);
  if (engine == nullptr) return {{"cannot", "open"}};
  SBTreeItem key, value;
  for (unsigned move = kMoveFirst; engine->seq(engine, &key, &value, move) == 0; move = kMoveNext)
    records.emplace(std::string(static_cast<char *>(key.data), key.size),
                    std::string(static_cast<char *>(value.data), value.size));
  engine->close(engine);
  return records;
}

// Behind the line "HEADER=END" a key and a value in turn, a line each, two hexadecimal digits a byte.
inline Records ReadWithDump(std::string const &path) {
  FILE *dump = popen(("db_dump185 '" + path + "'").c_str(), "r");
  Records records;
  if (dump == nullptr) return {{"cannot", "dump"}};
  std::string text;
  char buffer[4096];
  while (size_t length = fread(buffer, 1, sizeof buffer, dump)) text.append(buffer, length);
  pclose(dump);
  auto nextItem = [&text, at = text.find("HEADER=END\n") + 11](std::string &item) mutable {
    size_t const end = text.find('\n', at);
    if (end == std::string::npos || text.compare(at, 8, "DATA=END") == 0) return false;
    item.clear();
    for (; at + 1 < end; at += 2) item += static_cast<char>(std::stoi(text.substr(at, 2), nullptr, 16));
    at = end + 1;
    return true;
  };
  std::string key, value;
  while (nextItem(key) && nextItem(value)) records.emplace(key, value);
  return records;
}

inline void ExpectRecords(std::string const &path, Records const &want) {
  auto shortened = [](Records const &records) {  // so that a failure prints no page-long value
    Records result;
    for (auto const &[key, value] : records)
      result[key.substr(0, 40) + "/" + std::to_string(key.size())] =
          value.substr(0, 40) + "/" + std::to_string(value.size());
    return result;
  };
  for (Records const &read : {ReadWithEngine(path), ReadWithDump(path)})
    EXPECT_TRUE(read == want) << testing::PrintToString(shortened(read));
}
