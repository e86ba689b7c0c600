#include "brenthaven/regex/cache.h"

#include <array>
#include <cstring>
#include <functional>
#include <memory>

namespace {

constexpr size_t kEntries = 128;

class Cache {
public:
  SRegex const &Get(SString const &expression, bool ignoreCase) {
    size_t const key = std::hash<std::string_view>()(expression.View()) ^ static_cast<size_t>(ignoreCase);
    ++_clock;
    for (size_t i = 0; i < _used; ++i)
      if (_keys[i] == key && _entries[i].Is(expression, ignoreCase)) return _Use(i);
    return _Compile(key, expression, ignoreCase);
  }

private:
  struct Entry {
    SString expression;
    bool ignoreCase = false;
    unsigned long lastUse = 0;
    std::unique_ptr<SPerlRegex const> regex;
    bool Is(SString const &text, bool caseless) const { return ignoreCase == caseless && expression == text; }
  };

  SRegex const &_Use(size_t i) {
    _entries[i].lastUse = _clock;
    return *_entries[i].regex;
  }

  SRegex const &_Compile(size_t key, SString const &expression, bool ignoreCase) {
    auto regex = std::make_unique<SPerlRegex const>(expression, ignoreCase ? "i" : "");
    if (!regex->OK()) {
      _broken = std::move(regex);
      return *_broken;
    }
    size_t const i = _used < kEntries ? _used++ : _LeastRecent();
    _keys[i] = key;
    _entries[i] = {expression, ignoreCase, 0, std::move(regex)};
    return _Use(i);
  }

  size_t _LeastRecent() const {
    size_t least = 0;
    for (size_t i = 1; i < kEntries; ++i)
      if (_entries[i].lastUse < _entries[least].lastUse) least = i;
    return least;
  }

  std::array<size_t, kEntries> _keys{};  // beside the entries, so that a look-up reads little memory
  std::array<Entry, kEntries> _entries;
  size_t _used = 0;
  unsigned long _clock = 0;
  std::unique_ptr<SPerlRegex const> _broken;
};

}  // namespace

SRegex const &CachedRegex(SString const &expression, char const *flags) {
  static auto *cache = new Cache;  // never freed: strings may be matched while the process ends
  return cache->Get(expression, flags != nullptr && strchr(flags, 'i') != nullptr);
}
