#include "brenthaven/regex/program.h"

#include <locale.h>
#include <string.h>

#include <algorithm>
#include <cstdio>

namespace {

// An automaton near these takes a quarter of a second and 100 MiB to compile. The expressions of the system have fewer
// than 100 positions; a list of 900 words in a setting still passes.
constexpr double kMaxPositions = 6000;
constexpr double kMaxEdges = 100000;
// Edges looked at in one run if every one of them were tried at every byte: one and a half minutes. A body of 20 MiB
// passes expressions of 190 edges.
constexpr double kMaxSteps = 4e9;

// The engine asks the locale how many bytes a character has and what a letter is. Bytes are bytes here, whatever locale
// the process has set.
class CLocale {
public:
  CLocale() : _before(uselocale(Plain())) {}
  ~CLocale() { uselocale(_before); }
  CLocale(CLocale const &) = delete;
  CLocale &operator=(CLocale const &) = delete;

private:
  static locale_t Plain() {
    static locale_t const plain = newlocale(LC_ALL_MASK, "C", locale_t());
    return plain;
  }
  locale_t _before;
};

size_t Find(std::string_view text, size_t start, std::string const &bytes) {
  if (bytes.empty()) return start;
  void const *found = memmem(text.data() + start, text.size() - start, bytes.data(), bytes.size());
  return found != nullptr ? static_cast<size_t>(static_cast<char const *>(found) - text.data()) : text.npos;
}

}  // namespace

struct SRegexProgram::Engine {
  Engine(std::string const &expression, bool ignoreCase) {
    CLocale const locale;
    int const flags = REG_EXTENDED | (ignoreCase ? REG_ICASE : 0);
    status = tre_regncomp(&compiled, expression.data(), expression.size(), flags);
  }
  Engine(Engine const &) = delete;
  Engine &operator=(Engine const &) = delete;
  ~Engine() {
    if (status == REG_OK) tre_regfree(&compiled);
  }

  // Offsets are relative to text.
  bool Run(std::string_view text, int flags, regmatch_t *slots, int count) const {
    CLocale const locale;
    return tre_regnexec(&compiled, text.data(), text.size(), static_cast<size_t>(count), slots, flags) == REG_OK;
  }

  regex_t compiled;
  int status;
};

SRegexProgram::SRegexProgram(std::string_view expression, bool ignoreCase)
    : _syntax(expression), _ignoreCase(ignoreCase), _status(_syntax.error) {
  if (_status != 0) return;
  if (_syntax.positions > kMaxPositions || _syntax.edges > kMaxEdges) {
    _status = REG_ESPACE;
    return;
  }
  if (_ignoreCase) {
    _syntax.prefix.clear();
    _syntax.isLiteral = false;
  }
  _isPlainBytes = _syntax.isLiteral;
  if (_isPlainBytes) return;
  _engine = std::make_unique<Engine const>(_syntax.engineText, _ignoreCase);
  _status = _engine->status;
}

SRegexProgram::~SRegexProgram() = default;

bool SRegexProgram::Run(std::string_view text, size_t start, match_info *slots, int count) const {
  std::fill_n(slots, count, match_info{-1, -1});
  if (_status != 0 || start > text.size()) return false;
  if (_syntax.isAnchored && start > 0) return false;
  if (_isPlainBytes) return _RunBytes(text, start, slots);
  if (_syntax.isAnchored) {
    if (!text.starts_with(_syntax.prefix)) return false;
  } else {
    start = Find(text, start, _syntax.prefix);  // no match can begin before it
    if (start == text.npos) return false;
  }
  if (_IsTooLong(text.substr(start))) return false;
  if (_syntax.hasWordForms && start > 0) return _RunBehindByte(text, start, slots, count);
  return _RunEngine(text, start, slots, count);
}

// "^bytes$" and its shorter forms.
bool SRegexProgram::_RunBytes(std::string_view text, size_t start, match_info *slots) const {
  std::string const &bytes = _syntax.prefix;
  size_t at = start;
  if (_syntax.isAnchored && _syntax.isAtEnd) {
    if (text != bytes) return false;
  } else if (_syntax.isAnchored) {
    if (!text.starts_with(bytes)) return false;
  } else if (_syntax.isAtEnd) {
    if (!text.substr(start).ends_with(bytes)) return false;
    at = text.size() - bytes.size();
  } else {
    at = Find(text, start, bytes);
    if (at == text.npos) return false;
  }
  slots[0] = {static_cast<int>(at), static_cast<int>(at + bytes.size())};
  return true;
}

bool SRegexProgram::_RunEngine(std::string_view text, size_t start, match_info *slots, int count) const {
  regmatch_t found[kMaxSlots];
  int const asked = std::min(count, _syntax.groups + 1);
  if (!_engine->Run(text.substr(start), start > 0 ? REG_NOTBOL : 0, found, asked)) return false;
  int const shift = static_cast<int>(start);
  for (int i = 0; i < asked; ++i)
    if (found[i].rm_so >= 0) slots[i] = {found[i].rm_so + shift, found[i].rm_eo + shift};
  return true;
}

// The engine takes the start of what it is given for the edge of a word. So it is given one byte more, and a form of the
// expression that passes over that byte: a match of ".(E)" at p is a match of E at p + 1 with the byte at p in view.
bool SRegexProgram::_RunBehindByte(std::string_view text, size_t start, match_info *slots, int count) const {
  if (_behindByte == nullptr)
    _behindByte = std::make_unique<Engine const>(".(" + _syntax.engineText + ")", _ignoreCase);
  if (_behindByte->status != REG_OK) return false;
  regmatch_t found[kMaxSlots + 1];
  int const asked = std::min(count, _syntax.groups + 1);
  if (!_behindByte->Run(text.substr(start - 1), REG_NOTBOL, found, asked + 1)) return false;
  int const shift = static_cast<int>(start) - 1;
  for (int i = 0; i < asked; ++i)
    if (found[i + 1].rm_so >= 0) slots[i] = {found[i + 1].rm_so + shift, found[i + 1].rm_eo + shift};
  return true;
}

bool SRegexProgram::_IsTooLong(std::string_view text) const {
  double const steps = std::max(_syntax.edges, 1.0) * static_cast<double>(text.size());
  if (steps <= kMaxSteps) return false;
  fprintf(stderr, "Regular expression not run: %.0f edges over %zu bytes are too many steps\n", _syntax.edges,
          text.size());
  return true;
}

SString SRegexProgram::ErrorText(int status) {
  char text[100];
  tre_regerror(status, nullptr, text, sizeof text);
  return text;
}
