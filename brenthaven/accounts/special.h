// brenthaven/accounts/special.h - the accounts that every installation has, and names for new ones.
#pragma once
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

inline constexpr char kPostmasterUID[] = "Postmaster";
inline constexpr char kDefaultUID[] = "Default";             // template of new accounts
inline constexpr char kDefaultListUID[] = "Default-List";    // template of new lists
inline constexpr char kAllMailboxesUID[] = "All-Mailboxes";  // the list of all accounts; not counted among the lists

// Whether the account is a template, "Default" or "Default-...". Its attributes, but for Type, stand in no index.
inline bool IsTemplateUID(SString const &uid) { return uid == kDefaultUID || uid.HasPrefix("Default-"); }

// "List-Manager", "Account-Manager", "Configuration-Manager", "Error-Handler": accounts that modules serve.
SStringList GetReservedAccountList();
// Those, then "Postmaster", "Default", "Default-List".
SStringList GetSpecialAccountList();

// Makes what is missing of the special accounts, under one write lock. An account that exists is left alone, but for
// two things: an Error-Handler that has no address outside a domain literal gets its addresses anew, and a Default-List
// without Access-Domains gets "none". The domains are mail domains of this installation; addresses are made in the
// primary one, and for the service accounts in the secondary one too. An empty domain gets no address, and a secondary
// one that repeats the primary adds none. Postmaster is a person's business and not made here. Always 1: an attribute
// that cannot be set is left unset, and the next run does not mend it.
unsigned CreateSpecialAccounts(SString const &primary, SString const &secondary);

// A UID for a person's name that no account has yet: runs of characters that are no letter, digit or "_" become one
// "_", a name that some file systems reserve ("con", "lpt1") gets a "_" in front, and a taken one, as well as
// "Postmaster", a number behind. "" gives "_", and what would be too long for a directory is cut. The name is free only
// until someone takes it, so whoever makes the account calls this inside an SAccountDBMod.
SString GenerateAccountUID(SString name);

// 1 when the account receives the postmaster's mail: Postmaster itself, and the accounts it delivers to.
unsigned IsPostmasterForwardee(SString const &uid);
