#include "brenthaven/platform/secretfile.h"

#include <cerrno>
#include <cstdio>
#include <set>
#include <string>

bool IsClosedToOthers(char const *path, struct stat const &info) {
  if ((info.st_mode & (S_IROTH | S_IWOTH)) == 0) return true;
  static auto *const told = new std::set<std::string>();
  if (told->insert(path).second)
    (void)fprintf(stderr, "%s is open to others and is not used: chmod o= on it, or brenthaven doctor --fix\n", path);
  errno = EPERM;
  return false;
}
