// Dispatcher [--root DIR] [--modules DIR]: runs in the foreground until SIGTERM or SIGINT.
#include <limits.h>
#include <string.h>
#include <sysexits.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "dispatcher/dispatcher.h"

namespace {

// Modules stand beside this program unless told otherwise.
std::string OwnDirectory() {
  char path[PATH_MAX];
  ssize_t const length = readlink("/proc/self/exe", path, sizeof path);
  if (length <= 0) return ".";
  std::string const text(path, static_cast<size_t>(length));
  return text.substr(0, text.rfind('/'));
}

int Usage() {
  fputs("usage: Dispatcher [--root DIR] [--modules DIR]\n  DIR of --root defaults to the environment's Brenthaven\n",
        stderr);
  return EX_USAGE;
}

}  // namespace

int main(int argc, char **argv) {
  char const *const given = getenv("Brenthaven");
  std::string root = given != nullptr ? given : "";
  std::string modules = OwnDirectory();
  for (int i = 1; i < argc; i += 2) {
    if (i + 1 >= argc) return Usage();
    if (strcmp(argv[i], "--root") == 0)
      root = argv[i + 1];
    else if (strcmp(argv[i], "--modules") == 0)
      modules = argv[i + 1];
    else
      return Usage();
  }
  while (root.size() > 1 && root.back() == '/') root.pop_back();
  if (root.empty()) return Usage();
  Dispatcher dispatcher(root, modules);
  if (int const failure = dispatcher.Start(); failure != 0) return failure;
  dispatcher.Run();
  return 0;
}
