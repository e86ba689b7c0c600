// bench/accountstore.h - account stores of any size, for the benchmarks that look among them.
#pragma once
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "brenthaven/accounts/accountdb.h"

inline SString BenchUid(int number) {
  char text[16];
  std::snprintf(text, sizeof text, "user%07d", number);
  return text;
}

inline SString BenchAddress(int number) { return BenchUid(number) + "@mail.example.org"; }

// A root of its own; the process reads one store at a time, so each size is a stem of files in it.
class SBenchAccounts {
public:
  // named: the accounts have a Name each, as a person's has, and not their address alone.
  explicit SBenchAccounts(bool named) : _named(named) {
    if (mkdtemp(_root.data()) == nullptr) std::abort();
    std::filesystem::create_directory(_root + "/config");
    setenv("Brenthaven", _root.c_str(), 1);
    setenv("SpoolSync", "no", 1);
  }
  ~SBenchAccounts() {
    std::error_code ignored;  // what is left lies in the temporary directory
    std::filesystem::remove_all(_root, ignored);
  }
  SBenchAccounts(SBenchAccounts const &) = delete;
  SBenchAccounts &operator=(SBenchAccounts const &) = delete;

  void Use(int accounts) const {
    SString const stem = SString("Bench") + MakeSString(accounts) + ".";
    SAccountDBMod().ReOpenDB(stem);
    if (!std::filesystem::exists(_root + "/config/" + std::string(stem.View()) + "a")) _Fill(accounts);
  }

private:
  static constexpr int kAccountsEach = 10000;  // in one write section

  void _Fill(int accounts) const {
    for (int first = 0; first < accounts; first += kAccountsEach) {
      SAccountDBMod store;
      for (int i = first; i < first + kAccountsEach; ++i) {
        SAccountMod account;
        if (store.ModifyAccount(BenchUid(i), &account) == 0 || account.Set(kAttrSmtpAddress, BenchAddress(i)) == 0 ||
            (_named && account.Set(kAttrName, "Person " + BenchUid(i)) == 0))
          std::abort();
      }
    }
  }

  std::string _root = std::filesystem::temp_directory_path() / "brenthaven-bench-XXXXXX";
  bool _named;
};

// Whether the first argument is --million, which is then taken away.
inline bool TakeMillionFlag(int &argc, char **&argv) {
  if (argc < 2 || std::strcmp(argv[1], "--million") != 0) return false;
  argv[1] = argv[0];
  ++argv;
  --argc;
  return true;
}
