// brenthaven/handler/pass.h - what one pass over a message's accounts knows. Private to the account handler.
#pragma once
#include "brenthaven/handler/accounthandler.h"
#include "brenthaven/text/named.h"
#include "brenthaven/text/sstringset.h"

struct SAccountHandlerModule::Pass {
  explicit Pass(SControl const &control);

  SString function;               // as the message came
  SStringList queue;              // names still to expand; what they lead to joins its end
  SStringSet seen;                // names taken off the queue, by earlier passes too
  SStringList taken;              // those of this pass, in order
  SStringList unknown;            // those of them that are no accounts
  SStringList modules;            // "handler account"
  SStringList channels;           // "SMTP <address>"
  SStringList managers;           // module names
  SNamedStringList agents{1, 0};  // agent to what it shall deliver to
  bool accountFound = false;
  bool written = false;   // a writer has succeeded
  bool reused = false;    // the last delivery took the message's own files
  bool reported = false;  // the unknown names have been
  bool stopped = false;   // mail for the postmaster, and there is none
};
