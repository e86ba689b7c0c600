#include "brenthaven/mime/linebreak.h"

SLineBreaker::SLineBreaker(SString const &text, unsigned int autoChop) : _text(text), _autoChop(autoChop) {}

unsigned int SLineBreaker::ReadLine(SString &line) {
  _current = _next;
  if (_next >= _text.Length()) {
    line.Undef();
    return 0;
  }
  std::string_view const rest = _text.View().substr(static_cast<size_t>(_next));
  size_t const feed = rest.find('\n');
  size_t const length = feed == std::string_view::npos ? rest.size() : feed + 1;
  size_t ending = feed == std::string_view::npos ? 0 : 1;
  if (ending != 0 && feed > 0 && rest[feed - 1] == '\r') ending = 2;
  line = SString(rest.substr(0, _autoChop ? length - ending : length));
  _next += static_cast<int>(length);
  return 1;
}

SString SLineBreaker::GetRemainder() const {
  SString const &text = _text;
  return text.Segment(_next, text.Length() - _next);
}
