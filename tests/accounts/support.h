// tests/accounts/support.h - a scratch spool with accounts in it.
#pragma once
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "brenthaven/accounts/accountdb.h"
#include "tests/support/scratch.h"
#include "tests/support/texts.h"

class AccountFixture : public ScratchSpool {
protected:
  // Makes the account when it is missing, and sets one attribute; the result of Set.
  static int Put(SString const &uid, int attribute, SStringList const &values) {
    SAccountDBMod store;
    SAccountMod account;
    return store.ModifyAccount(uid, &account) != 0 ? account.Set(attribute, values) : 0;
  }
  static Texts Values(SString const &uid, int attribute) {
    SAccount account;
    if (SAccountDB().GetAccountInfo(uid, &account) == 0) return {"(no account)"};
    return List(account.Get(attribute));
  }
  static bool Exists(SString const &uid) { return SAccountDB().GetAccountInfo(uid, nullptr) != 0; }
  static std::string Owner(char const *address) {
    return Text(SAccountDB().GetAccountUID(S821Address(SString(address))));
  }
};
