#include "command/spoolfiles.h"

#include <errno.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "brenthaven/platform/environment.h"
#include "brenthaven/platform/sys.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/spool/returned.h"
#include "brenthaven/text/base.h"
#include "brenthaven/text/sstringlist.h"
#include "command/command.h"

namespace {

constexpr char kDeferredPlace[] = "deferred";
constexpr int kDeepest = 2;  // deferred/MODULE/HOST

// Adds the control files of a directory, and of those below it down to `depth` levels.
void Collect(SString const &directory, std::string const &place, int depth, std::vector<SpoolFile> &files) {
  for (SString const &path : ReadDir(directory)) {
    struct stat info;
    if (sys::Lstat(path, &info) != 0) continue;  // went on its way meanwhile
    std::string const name = ToStd(BaseName(path));
    if (S_ISDIR(info.st_mode)) {
      if (depth == 0) continue;
      std::string below = place;
      below.append(place == kDeferredPlace ? ":" : "/").append(name);
      Collect(path, below, depth - 1, files);
    } else if (S_ISREG(info.st_mode) && name.ends_with(kControlSuffix)) {
      files.push_back({ToStd(BaseName(path, kControlSuffix)), ToStd(path), place, info.st_mtime});
    }
  }
}

}  // namespace

std::vector<SpoolFile> FindSpoolFiles(std::string const &root) {
  std::vector<SpoolFile> files;
  SString const control = SString(root) + "/control";
  Collect(control, kPlaceWaiting, 0, files);
  Collect(control + "/held", kPlaceHeld, 0, files);
  Collect(control + "/failed", kPlaceFailed, 0, files);
  Collect(SString(root) + "/deferred", kDeferredPlace, kDeepest, files);
  std::stable_sort(files.begin(), files.end(), [](SpoolFile const &a, SpoolFile const &b) {
    return std::tie(a.since, a.name) < std::tie(b.since, b.name);
  });
  return files;
}

bool IsHoldingPlace(std::string const &place) {
  for (char const *name : {kSidelinePlace, kHeldPlace})
    if ((place + "/").starts_with(std::string(kDeferredPlace) + ":" + name + "/")) return true;
  return false;
}

int RunModuleProgram(std::string const &module, std::string const &word) {
  if (module.empty() || module.find('/') != std::string::npos || module.front() == '.') return -1;
  std::string path = ModuleDirectory() + "/" + module, argument = word;
  char *const argv[] = {path.data(), argument.data(), nullptr};
  PutEnv("ModuleName", SString(module));
  pid_t pid = 0;
  if (posix_spawn(&pid, path.c_str(), nullptr, nullptr, argv, environ) != 0) return -1;
  int status = 0;
  while (waitpid(pid, &status, 0) < 0)
    if (errno != EINTR) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
