// brenthaven/platform/nativepath.h - a path of ours as the system takes it.
#pragma once
#include <string>

#include "brenthaven/text/sstring.h"

// Paths are accepted with "/" and "\" alike; the system knows "/" only. A path with a NUL byte would be cut there and
// name another file, so it becomes the empty path, which no call finds. The SString must outlive this view of it.
class SNativePath {
public:
  explicit SNativePath(SString const &path);
  SNativePath(SNativePath const &) = delete;
  SNativePath &operator=(SNativePath const &) = delete;

  operator char const *() const { return _text; }

private:
  std::string _copy;  // used only when something had to change
  char const *_text;
};
