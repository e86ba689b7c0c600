// brenthaven/text/named.h - tables by name: of lists of strings, which is what a field file holds, and of numbers.
//
// The byte form of an SNamedStringList, read and written by operator>> and operator<<, is the syntax of control and
// header files. Each line ends in CR LF (a bare CR or LF is a byte of the value like any other):
//
//   key SP value CR LF           the key is all before the first blank, its ":" or "!" included; the value is not
//   trimmed SP-or-HT rest CR LF          continues the value before it, which keeps the CR LF and the line unchanged
//   text-without-blank CR LF     opens no key: one more value of the key before it
//
// A key with several values has one line for each, all together, where the key was first added.
#pragma once
#include "brenthaven/text/sstringlist.h"
#include "brenthaven/text/stable.h"

class SNLists {
public:
  explicit SNLists(unsigned caseSensitive) : _caseSensitive(caseSensitive), _table(0, caseSensitive) {}
  SNLists(SNLists const &) = delete;
  SNLists &operator=(SNLists const &) = delete;
  virtual ~SNLists() = default;
  virtual SStringList Keys() const = 0;
  virtual void Delete(SString const &key);
  virtual void Reset();

protected:
  unsigned _caseSensitive;  // a copy of the flag only: the table compares by the one that it was built with
  STable _table;
};

// Key to list. Copies share the lists until one is changed.
class SNamedStringList : public SNLists {
public:
  explicit SNamedStringList(unsigned caseSensitive = 1, unsigned headerStyle = 0);
  SNamedStringList(SNamedStringList const &other);  // takes the comparison over too
  ~SNamedStringList() override = default;
  // Copies both flags; keys are still compared as this table was built to do.
  SNamedStringList &operator=(SNamedStringList const &other);
  // Takes over the lists of keys that this table lacks, and of others the values that it does not hold yet.
  SNamedStringList &operator+=(SNamedStringList const &other);

  SStringList &operator[](SString const &key);        // an absent key is made, with an undefined list
  SStringList Keys() const override;                  // without keys whose list is undefined
  virtual SStringList Get(SString const &key) const;  // undefined when absent

  friend SString &operator<<(SString &text, SNamedStringList const &table);
  friend SString const &operator>>(SString const &text, SNamedStringList &table);

protected:
  unsigned _headerStyle;  // picks the line end of the byte form; both choices are CR LF
};

// Appends the byte form to text. No value opens a line of its own: each is written as FoldedFieldValue gives it. A key
// with a blank or CR LF in it could not be read back and is left out; who must not lose one asks IsFieldKey first.
SString &operator<<(SString &text, SNamedStringList const &table);
// Replaces the table by what text holds, in linear time, and returns text.
SString const &operator>>(SString const &text, SNamedStringList &table);

// The value as it may stand in a field file: a CR LF in it that no blank or tab follows gets a blank behind it, so that
// it never opens a line of its own and reads back as one value. A value that needs nothing is returned as it is,
// shared.
SString FoldedFieldValue(SString const &value);
// Whether a control file may have this key: not empty, and no blank, CR or LF in it.
bool IsFieldKey(SString const &key);

// Key to int. -1 means deleted: Keys leaves it out, and copies do not take it along.
class SNamedValue : public SNLists {
public:
  explicit SNamedValue(unsigned caseSensitive = 1);
  // A copy compares keys exactly, even one of a table that ignores case.
  SNamedValue(SNamedValue const &other);
  ~SNamedValue() override = default;
  SNamedValue &operator=(SNamedValue const &other);

  int &operator[](SString const &key);  // an absent key is made, with 0
  int Get(SString const &key) const;    // -1 when absent
  SStringList Keys() const override;
};
