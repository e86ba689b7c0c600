#include "brenthaven/address/parser.h"

#include <algorithm>

void SParser::Reset() { _position = _previous = _start = _state = 0; }

void SParser::Set(SString const &text) {
  Reset();
  _text = text;
}

void SParser::UndoNext() { _position = _previous; }

void SParser::_Skip(int length) { _start = _position += length; }

void SParser::_Take(Scan &scan, int length) {
  length = std::min(length, _text.Length() - _position);
  scan.text.Append(_text.View().substr(static_cast<size_t>(_position), static_cast<size_t>(length)));
  _position += length;
}

SParser::Scan SParser::_Begin() {
  Scan scan;
  _start = _position;
  if (_state == kFailed) scan.Fail();
  return scan;
}

SToken SParser::_Finish(Scan &scan) {
  if (scan.type == 0 && _state != kNormal) scan.Fail();  // nothing closes what was opened
  if (scan.type == 0) scan.End(scan.text.Length() > 0 ? SToken::kAtom : SToken::kEnd);
  _previous = _start;
  _state = scan.type == SToken::kError ? kFailed : kNormal;
  return SToken(scan.text, scan.type, _start);
}
