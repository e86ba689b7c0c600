#include "brenthaven/accounts/directorysettings.h"

#include <algorithm>

#include "brenthaven/accounts/accountstore.h"

namespace {

constexpr double kDefaultTimeout = 10;  // seconds
constexpr double kLongestTimeout = 3600;

}  // namespace

SLdapOptions ReadDirectoryOptions() {
  SLdapOptions options;
  double const timeout = accountstore::Setting("DirectoryTimeout").AsDouble();
  options.timeout = timeout > 0 ? std::min(timeout, kLongestTimeout) : kDefaultTimeout;
  options.authorities = accountstore::Setting("DirectoryAuthorities");
  return options;
}

bool MaySendClearText() { return accountstore::Setting("AllowClearTextBind") == "yes"; }
