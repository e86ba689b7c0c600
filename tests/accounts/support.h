// tests/accounts/support.h - a scratch spool with accounts in it.
#pragma once
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "brenthaven/accounts/accountdb.h"
#include "tests/support/scratch.h"

inline std::string Text(SString const &text) { return std::string(text.View()); }

inline std::vector<std::string> Texts(SStringList const &list) {
  std::vector<std::string> texts;
  for (SString const &item : list) texts.push_back(Text(item));
  return texts;
}

class AccountFixture : public ScratchSpool {
protected:
  using Strings = std::vector<std::string>;

  // Makes the account when it is missing, and sets one attribute; the result of Set.
  static int Put(SString const &uid, int attribute, SStringList const &values) {
    SAccountDBMod store;
    SAccountMod account;
    return store.ModifyAccount(uid, &account) != 0 ? account.Set(attribute, values) : 0;
  }
  static Strings Values(SString const &uid, int attribute) {
    SAccount account;
    if (SAccountDB().GetAccountInfo(uid, &account) == 0) return {"(no account)"};
    return Texts(account.Get(attribute));
  }
  static bool Exists(SString const &uid) { return SAccountDB().GetAccountInfo(uid, nullptr) != 0; }
  static std::string Owner(char const *address) {
    return Text(SAccountDB().GetAccountUID(S821Address(SString(address))));
  }
};
