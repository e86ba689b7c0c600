#include "brenthaven/regex/program.h"

#include <string.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <utility>

namespace {

// Edges that one run may look at before it is given up: some ten seconds. Only an expression of thousands of them over
// megabytes of text that keep all of them busy comes near.
constexpr unsigned long kMaxRunEdges = 4000000000;

bool IsWord(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_'; }

size_t Find(std::string_view text, size_t start, std::string const &bytes) {
  if (bytes.empty()) return start;
  void const *found = memmem(text.data() + start, text.size() - start, bytes.data(), bytes.size());
  return found != nullptr ? static_cast<size_t>(static_cast<char const *>(found) - text.data()) : text.npos;
}

}  // namespace

class SRegexProgram::Simulation {
public:
  Simulation(SAutomaton const &automaton, Memory &memory, std::string_view text)
      : _automaton(automaton),
        _memory(memory),
        _text(text),
        _slotCount(2 * static_cast<size_t>(std::min(automaton.groups + 1, kMaxSlots))) {
    size_t const size = automaton.states.size();
    memory.seen.resize(size);
    for (Ways *ways : {&memory.now, &memory.next}) {
      ways->count = 0;
      ways->states.resize(size);
      ways->slots.resize(size * _slotCount);
    }
    ++memory.stamp;
  }

  bool Run(size_t start) {
    for (size_t at = start;; ++at) {
      if (_memory.now.count == 0) {
        if (_hasMatch) break;
        at = _NextCandidate(at);
        if (at == _text.npos) break;
      }
      if (!_hasMatch && _CanStart(at)) _Start(at);
      if (at == _text.size()) break;
      _Step(at);
      if (_edgesSeen > kMaxRunEdges) return _GiveUp();
    }
    return _hasMatch;
  }

  void Report(match_info (&slots)[kMaxSlots]) const {
    for (size_t group = 0; 2 * group < _slotCount; ++group)
      if (_best[2 * group + 1] >= 0) slots[group] = {_best[2 * group], _best[2 * group + 1]};
  }

private:
  // Where no way is open, the next place at which a match may begin.
  size_t _NextCandidate(size_t at) const {
    if (_automaton.isAnchored) return at == 0 ? at : _text.npos;
    if (!_automaton.prefix.empty()) return Find(_text, at, _automaton.prefix);
    if (_automaton.canBeEmpty) return at;
    while (at < _text.size() && !_automaton.firstBytes[static_cast<unsigned char>(_text[at])]) ++at;
    return at < _text.size() ? at : _text.npos;
  }

  bool _CanStart(size_t at) const {
    if (_automaton.isAnchored && at > 0) return false;
    return _automaton.canBeEmpty || (at < _text.size() && _automaton.firstBytes[static_cast<unsigned char>(_text[at])]);
  }

  // A way that begins here comes behind all that began earlier.
  void _Start(size_t at) {
    int slots[2 * kMaxSlots];
    std::fill_n(slots, _slotCount, -1);
    slots[0] = static_cast<int>(at);
    _Follow(_automaton.states[0], slots, _memory.now, at);
  }

  // Takes the byte at a place, in the order of the ways.
  void _Step(size_t at) {
    Ways const &now = _memory.now;
    _memory.next.count = 0;
    ++_memory.stamp;
    for (int i = 0; i < now.count; ++i) {
      int const *slots = &now.slots[static_cast<size_t>(i) * _slotCount];
      if (_hasMatch && slots[0] > _best[0]) break;  // it and those behind it began later than a match
      _Follow(_automaton.states[static_cast<size_t>(now.states[static_cast<size_t>(i)])], slots, _memory.next, at + 1);
    }
    std::swap(_memory.now, _memory.next);
  }

  // Opens the states behind one that take the byte at a place, each once: who comes first is the more eager.
  void _Follow(SState const &state, int const *slots, Ways &ways, size_t at) {
    SEdge const *end = _automaton.edges.data() + state.endEdge;
    bool const isAtEnd = at == _text.size();
    auto const byte = static_cast<unsigned char>(isAtEnd ? '\0' : _text[at]);
    _edgesSeen += static_cast<unsigned long>(state.endEdge - state.firstEdge);
    for (SEdge const *edge = _automaton.edges.data() + state.firstEdge; edge != end; ++edge) {
      if (edge->target == SEdge::kMatch) {
        if (edge->conditions == 0 || _Holds(edge->conditions, at)) _Found(slots, edge->marks, at);
        continue;
      }
      auto const target = static_cast<size_t>(edge->target);
      if (isAtEnd || !_automaton.sets[static_cast<size_t>(_automaton.states[target].set)][byte]) continue;
      if (_memory.seen[target] == _memory.stamp) continue;
      if (edge->conditions != 0 && !_Holds(edge->conditions, at)) continue;
      _memory.seen[target] = _memory.stamp;
      ways.states[static_cast<size_t>(ways.count)] = edge->target;
      _Copy(slots, edge->marks, at, &ways.slots[static_cast<size_t>(ways.count) * _slotCount]);
      ++ways.count;
    }
  }

  void _Copy(int const *slots, unsigned marks, size_t at, int *out) const {
    std::copy_n(slots, _slotCount, out);
    for (; marks != 0; marks &= marks - 1) out[std::countr_zero(marks)] = static_cast<int>(at);
  }

  bool _Holds(unsigned conditions, size_t at) const {
    bool const before = at > 0 && IsWord(_text[at - 1]);
    bool const behind = at < _text.size() && IsWord(_text[at]);
    unsigned const holding = (at == 0 ? SEdge::kAtBegin : 0u) | (at == _text.size() ? SEdge::kAtEnd : 0u) |
                             (!before && behind ? SEdge::kAtWordBegin : 0u) |
                             (before && !behind ? SEdge::kAtWordEnd : 0u);
    return (conditions & ~holding) == 0;
  }

  void _Found(int const *slots, unsigned marks, size_t at) {
    auto const end = static_cast<int>(at);
    if (_hasMatch && (slots[0] > _best[0] || (slots[0] == _best[0] && end <= _best[1]))) return;
    _hasMatch = true;
    _Copy(slots, marks, at, _best);
    _best[1] = end;
  }

  bool _GiveUp() const {
    fprintf(stderr, "Regular expression given up after %lu edges over a text of %zu bytes\n", _edgesSeen, _text.size());
    return false;
  }

  SAutomaton const &_automaton;
  Memory &_memory;
  std::string_view _text;
  size_t _slotCount;
  int _best[2 * kMaxSlots];
  bool _hasMatch = false;
  unsigned long _edgesSeen = 0;
};

bool SRegexProgram::Run(std::string_view text, size_t start, match_info (&slots)[kMaxSlots]) const {
  std::fill_n(slots, kMaxSlots, match_info{-1, -1});
  if (Status() != kRegexOk || start > text.size() || (_automaton.isAnchored && start > 0)) return false;
  if (_automaton.isPlainBytes) return _RunBytes(text, start, slots[0]);
  Simulation simulation(_automaton, _memory, text);
  if (!simulation.Run(start)) return false;
  simulation.Report(slots);
  return true;
}

// "^bytes$" and its shorter forms.
bool SRegexProgram::_RunBytes(std::string_view text, size_t start, match_info &match) const {
  std::string const &bytes = _automaton.prefix;
  size_t at = start;
  if (_automaton.isAnchored && _automaton.isAtEnd) {
    if (text != bytes) return false;
  } else if (_automaton.isAnchored) {
    if (!text.starts_with(bytes)) return false;
  } else if (_automaton.isAtEnd) {
    if (!text.substr(start).ends_with(bytes)) return false;
    at = text.size() - bytes.size();
  } else {
    at = Find(text, start, bytes);
    if (at == text.npos) return false;
  }
  match = {static_cast<int>(at), static_cast<int>(at + bytes.size())};
  return true;
}
