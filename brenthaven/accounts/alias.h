// brenthaven/accounts/alias.h - channel aliases: an address that stands for a list of other addresses.
//
// The table lies in the configuration module MTA-Accounts, section "SMTP-Address/Aliases". A value's name is the
// address as S821Address::Get prints it, brackets included, in lower case; its items are the addresses it stands for.
#pragma once
#include "brenthaven/accounts/account.h"
#include "brenthaven/address/address821.h"
#include "brenthaven/text/sstringlist.h"

// Reads the table. All aliases of a process go through one cursor, so that nothing has to be opened for each address.
class SAliasDB : protected SAccountBase {
public:
  // What the address stands for; empty when it is no alias. Case does not matter.
  SStringList GetChannelAliases(S821Address const &address);
  // All aliased addresses, in the order of the store.
  SStringList GetAliases();

  // Whether an answer "no such alias" may mean that the store could not be read; see SAccountBase.
  using SAccountBase::ClearReadFailed;
  using SAccountBase::ReadFailed;
};

class SAliasDBMod : public SAliasDB {
public:
  // Replaces what the address stands for; makes the table when it is missing. 1 when stored.
  unsigned AddChannelAliases(S821Address const &address, SStringList const &aliases);
  // 1 when the address was an alias and is none now.
  unsigned DeleteChannelAliases(S821Address const &address);
};
