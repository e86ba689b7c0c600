// brenthaven/handler/pass.h - what one pass over a message's accounts knows. Private to the account handler.
#pragma once
#include <optional>

#include "brenthaven/handler/accounthandler.h"
#include "brenthaven/text/named.h"
#include "brenthaven/text/sstringset.h"

// Control file of a pass that failed: the archive copies that it wrote, "host#port SMTP <address>", so that the next
// pass writes them no second time.
inline constexpr char const kKeyArchiveToDone[] = "Archive-To!";

struct SAccountHandlerModule::Pass {
  explicit Pass(SControl const &control);

  SString function;                // as the message came
  SStringList queue;               // names still to expand; what they lead to joins its end
  SStringSet seen;                 // names taken off the queue, by earlier passes too
  SStringList taken;               // those of this pass, in order
  SStringList unknown;             // those of them that are no accounts
  SStringList modules;             // "handler account"
  SStringList channels;            // "SMTP <address>"
  SStringList managers;            // module names
  SNamedStringList agents{1, 0};   // agent to what it shall deliver to
  std::optional<bool> archives;    // Archive-Enabled, once it was needed
  SNamedStringList archive{1, 0};  // archive target, "host#port", to "SMTP <address>" of the accounts that name it
  SStringList archived;            // copies written, by this pass and by those before it that failed
  bool accountFound = false;
  bool written = false;   // a writer has succeeded
  bool reused = false;    // the last delivery took the message's own files
  bool reported = false;  // the unknown names have been
  bool stopped = false;   // mail for the postmaster, and there is none
};
