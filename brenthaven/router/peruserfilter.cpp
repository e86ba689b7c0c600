#include "brenthaven/router/peruserfilter.h"

#include "brenthaven/router/settings.h"
#include "brenthaven/spool/log.h"

namespace {

// The section's values into config. False, with a line in the log, when it can't be opened.
bool ReadConfig(SNamedStringList &config) {
  Sdbfile settings("SMTP-Accept", 0, kProductWord);
  if (!settings.Open("/Config", 0)) {
    WriteLogLine("SMTP-Accept pufAction Config Open Error");
    return false;
  }
  config = ReadSection(settings);
  return true;
}

SString ReadValue(char const *key) {
  SNamedStringList config;
  return ReadConfig(config) ? config.Get(key).Get(0) : SString();
}

}  // namespace

int SPerUserFilter::is_pufOn() { return ReadValue("PUF-Enabled") == "yes"; }

int SPerUserFilter::RegistMax() {
  SNamedStringList config;
  return ReadConfig(config) ? ReadCount(config, "PUF-Filter-Max") : 1;
}

SString SPerUserFilter::puf_getPort() { return ReadValue("PUF-Server-Port"); }

SString SPerUserFilter::puf_getHost() { return ReadValue("PUF-Server-Host"); }
