#include "brenthaven/platform/environment.h"

#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>

void PutEnv(SString const &name, SString const &value) {
  for (SString const *text : {&name, &value})
    if (text->View().find('\0') != std::string_view::npos) return;  // it would set something else
  (void)setenv(name, value, 1);
}

// Not by PR_SET_DUMPABLE: a process that is not dumpable does not own its /proc/self, and through that an unnamed file
// gets its name. A limit of 1 byte is too small for a core file and, unlike 0, also stops the kernel from piping the
// core to a program (core(5)).
void GuardProcess() {
  (void)umask(007);
  struct rlimit limit;
  if (getrlimit(RLIMIT_CORE, &limit) != 0) return;
  limit.rlim_cur = std::min<rlim_t>(1, limit.rlim_max);
  (void)setrlimit(RLIMIT_CORE, &limit);  // lowering it is never refused
}
