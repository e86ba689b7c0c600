// brenthaven/router/peruserfilter.h - the settings of the filter service that users manage for themselves.
#pragma once
#include "brenthaven/text/sstring.h"

// For the program that accepts mail by SMTP, which asks that service; nothing else here does. The settings stand in
// "/Config" of "SMTP-Accept" and are read at each call. Where that section can't be opened a line on the log stream
// says so.
class SPerUserFilter {
public:
  int is_pufOn();         // PUF-Enabled is "yes"
  int RegistMax();        // PUF-Filter-Max, most filters of one user; 1 without the section, 0 without the value
  SString puf_getPort();  // PUF-Server-Port; undefined when absent
  SString puf_getHost();  // PUF-Server-Host; likewise
};
