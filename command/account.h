// command/account.h - what the subcommands about accounts share.
#pragma once
#include <string>

#include "brenthaven/accounts/account.h"
#include "command/command.h"

// The account, or a Fail that tells a missing one from a store that can't be read.
bool FindAccount(Command &command, std::string const &uid, SAccount &account);
