#include "brenthaven/address/address822.h"

S822Address &S822Address::operator=(S821Address const &address) { return *this = S822Address(address); }

void S822Address::Set(SString const &text) { *this = S821Address(text); }

SString S822Address::Address() const {
  if (_end != 0) return "";
  SString text = S821Address::Address();
  if (text.Length() == 0 || text == "<>") return text;
  if (_phrase.Length() > 0)
    text = _phrase + " " + text;
  else if (Route().Length() == 0)
    text = SString(text.View().substr(1, text.View().size() - 2));
  return _comment.Length() > 0 ? text + " " + _comment : text;
}
