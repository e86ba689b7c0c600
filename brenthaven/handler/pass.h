// brenthaven/handler/pass.h - what one pass over a message's accounts knows. Private to the account handler.
#pragma once
#include <string>
#include <unordered_set>

#include "brenthaven/handler/accounthandler.h"
#include "brenthaven/text/named.h"

// Texts met so far: a list of ten thousand members must not cost ten thousand searches through a list.
class STextSet {
public:
  explicit STextSet(SStringList const &texts) {
    for (SString const &text : texts) (void)Add(text);
  }
  // True when the text is new here.
  bool Add(SString const &text) { return _texts.emplace(text.View()).second; }
  bool Contains(SString const &text) const { return _texts.contains(std::string(text.View())); }

private:
  std::unordered_set<std::string> _texts;
};

struct SAccountHandlerModule::Pass {
  explicit Pass(SControl const &control);

  SString function;               // as the message came
  SStringList queue;              // names still to expand; what they lead to joins its end
  STextSet seen;                  // names taken off the queue, by earlier passes too
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
