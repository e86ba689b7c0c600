#include "brenthaven/address/address821.h"

#include "brenthaven/address/parser821.h"

S821Address::S821Address(SString const &text) : S821Address(_Parse(text)) {}

SString S821Address::Get() const { return Address(); }

void S821Address::Set(SString const &text) { *this = _Parse(text); }

SString S821Address::Address() const {
  if (IsNull()) return "<>";
  if (IsBad()) return "";
  SString text("<");
  if (_route.Length() > 0) text += "@" + _route.Join(",@") + ":";
  text += _local;
  if (_domain.Length() > 0) text += "@" + _domain;
  return text += '>';
}

unsigned int S821Address::IsBad() const {
  bool const hasDomain = _domain.Length() > 0;
  bool const hasRoute = _route.Length() > 0;
  if (_bad != 0) return 1;
  return _local.Length() == 0 ? hasRoute || hasDomain : hasRoute && !hasDomain;
}

unsigned int S821Address::IsNull() const { return !IsBad() && _local.Length() == 0; }

unsigned int S821Address::IsValid() const { return !IsBad() && _local.Length() > 0; }

S821Address S821Address::_Parse(SString const &text) { return S821Parser(text, 1).ExtractAddress(); }
