#include "command/command.h"

#include <limits.h>
#include <sys/stat.h>
#include <sysexits.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "brenthaven/platform/environment.h"
#include "brenthaven/platform/files.h"
#include "brenthaven/spool/instance.h"

std::string OneLine(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; }, '?');
  return text;
}

void Fail(Command &command, int code, std::string const &text) {
  fprintf(stderr, "brenthaven: %s\n", OneLine(text).c_str());
  if (!command.failed) command.code = code;
  command.failed = true;
}

bool EnterInstance(Command &command) {
  while (command.root.size() > 1 && command.root.back() == '/') command.root.pop_back();
  if (command.root.empty()) {
    Fail(command, EX_USAGE, "no instance named: give --root DIR or set Brenthaven");
    return false;
  }
  SString const root(command.root);
  if (!IsDirectory(root + "/control") || !IsDirectory(root + "/config")) {
    Fail(command, EX_NOINPUT, command.root + " holds no instance; make one with: brenthaven init");
    return false;
  }
  if (!IsGuardedRoot(root)) {
    Fail(command, EX_CONFIG, ToStd(UnguardedRootText(root)) + "; narrow its mode: chmod o-w");
    return false;
  }
  (void)LoadInstanceEnvironment(root);  // an instance without the file has its defaults
  (void)LoadDispatcherAddress(root);    // without a dispatcher all but the notification works
  return true;
}

std::string ModuleDirectory() {
  char path[PATH_MAX];
  ssize_t const length = readlink("/proc/self/exe", path, sizeof path);
  if (length <= 0) return "/usr/libexec/brenthaven";
  std::string directory(path, static_cast<size_t>(length));
  directory.erase(directory.rfind('/'));
  return directory + "/../libexec/brenthaven";
}

void ShowProgress(int done, int total) {
  constexpr int kWidth = 40;
  if (!isatty(STDERR_FILENO)) return;
  std::string const bar(static_cast<size_t>(total > 0 ? static_cast<long>(done) * kWidth / total : kWidth), '#');
  fprintf(stderr, "\r[%-*s] %d of %d%s", kWidth, bar.c_str(), done, total, done == total ? "\n" : "");
}

SStringList ToList(std::vector<std::string> const &words) {
  SStringList list;
  list.Define();
  for (std::string const &word : words) list.Push(SString(std::string_view(word)));
  return list;
}

std::string ToStd(SString const &text) { return std::string(text.View()); }

std::string LocalTimeText(time_t time) {
  struct tm when;
  char text[32];
  if (localtime_r(&time, &when) == nullptr || strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &when) == 0) return "?";
  return text;
}
