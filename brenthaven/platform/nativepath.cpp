#include "brenthaven/platform/nativepath.h"

#include <algorithm>
#include <cstring>

SNativePath::SNativePath(SString const &path) : _text(path) {
  size_t const length = static_cast<size_t>(path.Length());
  if (memchr(_text, '\0', length) != nullptr) {
    _text = "";
  } else if (memchr(_text, '\\', length) != nullptr) {
    _copy.assign(_text, length);
    std::replace(_copy.begin(), _copy.end(), '\\', '/');
    _text = _copy.c_str();
  }
}
