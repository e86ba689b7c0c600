// brenthaven/listmanager/held.h - an owner's decision on what waits at a list.
#pragma once
#include "brenthaven/spool/module.h"
#include "brenthaven/text/sstring.h"

// Lets through, or turns down, the posting with this id, or else the request of the subscriber with this address, be it
// to join or to leave. An SListResult: kListMsgNotFound when neither waits; of a request that is let through, whatever
// it comes to. The caller has made sure that an owner wants it.
int DecideOnHeld(SModule &module, SString const &listUID, SString const &what, bool accept);
