// tests/property/property.h - what must hold for every input, tried with many.
//
// BRENTHAVEN_PROPERTY_CASES is the number of cases of each property, by default 1,000; a property whose cases are
// costly takes a fixed share of it. Each case has a seed of its own, which a failure prints; BRENTHAVEN_PROPERTY_SEED
// runs the one case with that seed.
#pragma once
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <string_view>

// The choices of one case.
class SChoices {
public:
  explicit SChoices(std::uint64_t seed) : _random(seed) {}

  int Below(int limit) { return static_cast<int>(_random() % static_cast<std::uint64_t>(limit)); }
  bool OneIn(int count) { return Below(count) == 0; }
  template <class List>
  auto const &Of(List const &list) {
    return list[static_cast<size_t>(Below(static_cast<int>(std::size(list))))];
  }
  // Up to so many bytes, all of an alphabet, or where that is empty any bytes at all.
  std::string Word(int longest, std::string_view alphabet = {}) {
    std::string word(static_cast<size_t>(Below(longest + 1)), '\0');
    for (char &c : word) c = alphabet.empty() ? static_cast<char>(Below(256)) : Of(alphabet);
    return word;
  }
  template <class List>
  void Shuffle(List &list) {
    std::shuffle(list.begin(), list.end(), _random);
  }

private:
  std::mt19937_64 _random;
};

// Runs the cases up to the first that fails. `share` is the part of them that this property takes, one in so many.
template <class Case>
void ForEachCase(Case const &run, int share = 1) {
  auto const number = [](char const *name, long otherwise) {
    char const *value = getenv(name);
    return value != nullptr && *value != '\0' ? atol(value) : otherwise;
  };
  long const seed = number("BRENTHAVEN_PROPERTY_SEED", 0);
  long const cases = seed != 0 ? 1 : number("BRENTHAVEN_PROPERTY_CASES", 1000) / share;
  for (long i = 1; i <= cases && !testing::Test::HasFailure(); ++i) {
    SCOPED_TRACE("BRENTHAVEN_PROPERTY_SEED=" + std::to_string(seed != 0 ? seed : i));
    SChoices choices(static_cast<std::uint64_t>(seed != 0 ? seed : i));
    run(choices);
  }
}
