// tests/support/scratch.h - a spool of its own for each test, under a fresh temporary directory, removed at the end.
#pragma once
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

// Makes a temporary root with the tree of an installation and points the process environment at it: Brenthaven,
// MailboxDir (root/mailboxes), HostName "mail.example.org", DomainName "example.org", SpoolSync "no", and no Log,
// MessageFile, ModuleName, DispatchSocket or DispatchKey. Files are made closed to others (umask 007), as those with
// passwords have to be. CTest runs each case in a process of its own.
class ScratchSpool : public ::testing::Test {
protected:
  ScratchSpool() {
    umask(007);
    std::string pattern = std::filesystem::temp_directory_path() / "brenthaven-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) abort();
    root = pattern;
    for (char const *dir : {"messages", "control", "deferred", "config", "mailboxes", "run"})
      std::filesystem::create_directory(root + "/" + dir);
    setenv("Brenthaven", root.c_str(), 1);
    setenv("MailboxDir", (root + "/mailboxes").c_str(), 1);
    setenv("HostName", "mail.example.org", 1);
    setenv("DomainName", "example.org", 1);
    setenv("SpoolSync", "no", 1);
    for (char const *name : {"Log", "MessageFile", "ModuleName", "DispatchSocket", "DispatchKey"}) unsetenv(name);
  }
  ~ScratchSpool() override {
    std::error_code ignored;  // a test may have taken permissions away; what is left lies in the temporary directory
    std::filesystem::remove_all(root, ignored);
  }

  std::string Path(std::string const &relative) const { return root + "/" + relative; }
  void PutFile(std::string const &relative, std::string const &bytes) const {
    std::filesystem::create_directories(std::filesystem::path(Path(relative)).parent_path());
    std::ofstream out(Path(relative), std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    ASSERT_TRUE(out.good()) << relative;
  }
  std::string FileBytes(std::string const &relative) const {
    std::ifstream in(Path(relative), std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
  }
  bool Exists(std::string const &relative) const { return std::filesystem::exists(Path(relative)); }
  // Number of entries in a directory; 0 when there is none.
  int CountIn(std::string const &relative) const {
    std::error_code ignored;
    int count = 0;
    for (auto it = std::filesystem::directory_iterator(Path(relative), ignored);
         !ignored && it != std::filesystem::directory_iterator(); ++it)
      ++count;
    return count;
  }

  std::string root;
};
