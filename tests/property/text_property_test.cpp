// Tables, splitting and substitution, against their definitions written down a second time.
#include "brenthaven/regex/sregex.h"
#include "brenthaven/text/named.h"
#include "tests/property/property.h"
#include "tests/support/texts.h"

namespace {

constexpr std::string_view kFieldBytes("ab: \t\r\n\0\xff", 9);

std::string KeyOf(SChoices &choices) {
  static constexpr char const *kKeys[] = {"Channel-To:", "Channel-To!", "Function:", "channel-to:", "X", "a:b"};
  return choices.Of(kKeys);
}

SString Written(SNamedStringList const &table) {
  SString text;
  text << table;
  return text;
}

// What the reader makes of a value that was folded: a CR LF that nothing blank follows has a blank behind it.
std::string Folded(std::string const &value) {
  std::string folded;
  for (size_t i = 0; i < value.size(); ++i) {
    folded += value[i];
    bool const endsLine = i > 0 && value[i - 1] == '\r' && value[i] == '\n';
    if (endsLine && (i + 1 == value.size() || (value[i + 1] != ' ' && value[i + 1] != '\t'))) folded += ' ';
  }
  return folded;
}

TEST(TableProperty, WhatIsWrittenIsReadBackWithTheSameKeysAndValues) {
  ForEachCase([](SChoices &choices) {
    SNamedStringList table(1);
    std::vector<std::pair<std::string, Texts>> want;
    for (int fields = choices.Below(8); fields > 0; --fields) {
      std::string const key = KeyOf(choices), value = choices.Word(30, kFieldBytes);
      table[Bytes(key)].Push(Bytes(value));
      auto found = std::find_if(want.begin(), want.end(), [&](auto const &field) { return field.first == key; });
      if (found == want.end()) found = want.insert(want.end(), {key, {}});
      found->second.push_back(Folded(value));
    }
    SString const text = Written(table);
    SNamedStringList back(1);
    text >> back;
    Texts keys;
    for (auto const &[key, values] : want) {
      keys.push_back(key);
      Texts got = List(back.Get(Bytes(key)));
      // A CR at the end of a value meets the line's own end; it may be kept apart from it by a blank.
      ASSERT_EQ(got.size(), values.size()) << key;
      for (size_t i = 0; i < got.size(); ++i)
        ASSERT_TRUE(got[i] == values[i] || (values[i].ends_with('\r') && got[i] == values[i] + ' ')) << key;
    }
    ASSERT_EQ(List(back.Keys()), keys);
    ASSERT_EQ(Text(Written(back)), Text(text)) << "what was read once comes out unchanged";
  });
}

TEST(SplitProperty, PiecesAndSeparatorsMakeTheText) {
  ForEachCase([](SChoices &choices) {
    std::string const text = choices.Word(24, std::string_view("ab,;\0", 5));
    std::string const separator = choices.Word(2, ",;");
    int const limit = choices.Below(5);
    Texts want;
    size_t at = 0;
    auto const mayEnd = [&] { return limit <= 0 || static_cast<int>(want.size()) + 1 < limit; };
    if (separator.empty()) return;  // single characters, which have no definition by separators
    for (size_t found; mayEnd() && (found = text.find(separator, at)) != std::string::npos;
         at = found + separator.size())
      want.push_back(text.substr(at, found - at));
    want.push_back(text.substr(at));
    ASSERT_EQ(List(Bytes(text).SplitExact(Bytes(separator), limit)), want) << text << " at " << separator;
    ASSERT_TRUE(limit != 0 || Bytes(text).SplitExact(Bytes(separator)).Join(Bytes(separator)) == Bytes(text));
  });
}

// An empty piece behind the last separator is none; all others are.
TEST(SplitProperty, ExpressionsSplitAtTheirMatches) {
  ForEachCase([](SChoices &choices) {
    std::string const text = choices.Word(24, "ab,;");
    Texts want(1);
    for (size_t i = 0; i < text.size(); ++i) {  // at "[,;]+"
      if (text[i] == ',' || text[i] == ';') {
        while (i + 1 < text.size() && (text[i + 1] == ',' || text[i + 1] == ';')) ++i;
        want.emplace_back();
      } else {
        want.back() += text[i];
      }
    }
    if (want.back().empty()) want.pop_back();
    ASSERT_EQ(List(Bytes(text).Split("[,;]+")), want) << text;

    want.assign(1, "");
    for (char const c : text) c == ',' ? want.emplace_back() : want.back() += c;
    if (want.back().empty()) want.pop_back();
    ASSERT_EQ(List(Bytes(text).Split(',')), want) << text;
  });
}

TEST(SubstProperty, ReplacementsTakeThePlacesOfTheMatches) {
  ForEachCase([](SChoices &choices) {
    std::string const text = choices.Word(24, std::string_view("abx\0", 4));
    bool const all = choices.OneIn(2);
    static constexpr std::pair<char const *, char const *> kReplacements[] = {
        {"-", "-"}, {"", ""}, {"<$1>", "<1>"}, {"$&$&", "&&"}, {"\\$1", "$1"}, {"[\\1\\n]", "[1\n]"}};
    auto const &[replacement, meaning] = choices.Of(kReplacements);
    std::string want;
    bool isDone = false;
    for (size_t i = 0; i < text.size(); ++i) {  // of "a(b*)"
      if (text[i] != 'a' || isDone) {
        want += text[i];
        continue;
      }
      size_t const end = std::min(text.find_first_not_of('b', i + 1), text.size());
      bool const isLiteral = std::string_view(replacement) == "\\$1";
      for (char const c : std::string_view(meaning))
        if (c == '1' && !isLiteral)
          want.append(text, i + 1, end - i - 1);
        else if (c == '&')
          want.append(text, i, end - i);
        else
          want += c;
      i = end - 1;
      isDone = !all;
    }
    SString got = Bytes(text);
    (void)got.S("a(b*)", replacement, all ? "g" : "");
    ASSERT_EQ(Text(got), want) << text << " by " << replacement;
  });
}

}  // namespace
