#include "dispatcher/settings.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>

#include "brenthaven/store/sdbfile.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

namespace {

struct SettingRow {
  char const *key;
  int Settings::*field;
  int least, most, fallback;  // fallback 0: twice the processors
};

constexpr SettingRow kSettings[] = {
    {"MaxModules", &Settings::maxModules, 1, 1000, 0},       {"QueueInterval", &Settings::queueInterval, 1, 86400, 300},
    {"ScanInterval", &Settings::scanInterval, 1, 86400, 30}, {"RetryLimit", &Settings::retryLimit, 1, 1000, 5},
    {"RetryDelay", &Settings::retryDelay, 0, 86400, 10},     {"StopTimeout", &Settings::stopTimeout, 0, 3600, 30},
};

int TwiceTheProcessors() { return 2 * static_cast<int>(std::max(1L, sysconf(_SC_NPROCESSORS_ONLN))); }

}  // namespace

Settings LoadSettings(std::vector<std::string> &complaints) {
  Sdbfile store("Dispatcher", 0, "Brenthaven");
  bool const open = store.Open("/Config", 0) != 0;
  Settings settings = {};
  for (SettingRow const &row : kSettings) {
    settings.*row.field = row.fallback != 0 ? row.fallback : TwiceTheProcessors();
    SString const given = open ? store.Get(row.key).Get(0) : SString();
    if (given.Length() == 0) continue;
    std::string_view const text = given.View();
    int value = 0;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error == std::errc() && end == text.data() + text.size() && value >= row.least && value <= row.most)
      settings.*row.field = value;
    else
      complaints.push_back(std::string(row.key) + " is no number from " + std::to_string(row.least) + " to " +
                           std::to_string(row.most) + ": " + std::string(text));
  }
  return settings;
}
