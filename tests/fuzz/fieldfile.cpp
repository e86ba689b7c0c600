// Any text as a field file: what it is read as, written and read again, is the same; and a value, whatever it holds, is
// no way to a key of its own.
//
// The first byte of the input picks how keys are compared; the rest is the file.
#include "brenthaven/text/named.h"
#include "tests/fuzz/fuzz.h"

namespace {

SString Written(SNamedStringList const &table) {
  SString text("");
  text << table;
  return text;
}

void ExpectEqual(SNamedStringList const &a, SNamedStringList const &b, char const *what) {
  SStringList const keys = a.Keys();
  fuzz::Expect(keys == b.Keys(), what, Written(a).View());
  for (SString const &key : keys) fuzz::Expect(a.Get(key) == b.Get(key), what, key.View());
}

// What a table that has been read holds can be written, but for keys that only a broken file has.
void ExpectFixedPoint(SString const &text, unsigned caseSensitive) {
  SNamedStringList table(caseSensitive);
  text >> table;
  SString const once = Written(table);
  SNamedStringList again(caseSensitive);
  once >> again;
  SString const twice = Written(again);
  SNamedStringList third(caseSensitive);
  twice >> third;
  ExpectEqual(again, third, "a table that was written and read differs from itself");
  fuzz::Expect(twice == Written(third), "the text of a table does not stay as it is");
  SStringList kept;
  kept.Define();
  for (SString const &key : table.Keys())
    if (key.View().find("\r\n") == std::string_view::npos) kept.Push(key);
  fuzz::Expect(kept == again.Keys(), "keys changed their order or number", once.View());
}

void ExpectNoNewKey(SString const &value) {
  SNamedStringList table;
  table["Subject:"] = SStringList(value);
  table["Function:"] = SStringList("SMTP-Router");
  SNamedStringList read;
  Written(table) >> read;
  fuzz::Expect(read.Keys() == (SStringList{"Subject:", "Function:"}), "a value opened a key", value.View());
  fuzz::Expect(read.Get("Subject:").Length() == 1, "a value became several", value.View());
  fuzz::Expect(read.Get("Function:") == SStringList("SMTP-Router"), "a value changed the next key", value.View());
  SString const folded = FoldedFieldValue(value);
  fuzz::Expect(read.Get("Subject:").Get(0) == folded, "a value is not read as it was written", value.View());
  fuzz::Expect(FoldedFieldValue(folded) == folded, "a folded value is folded again", value.View());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, size_t size) {
  if (size == 0) return 0;
  SString const text = fuzz::Text(fuzz::View(data + 1, size - 1));
  ExpectFixedPoint(text, data[0] & 1);
  ExpectNoNewKey(text);
  return 0;
}
