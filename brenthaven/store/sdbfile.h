// brenthaven/store/sdbfile.h - settings: a cursor over the hierarchical configuration store.
#pragma once
#include <memory>

#include "brenthaven/platform/registry.h"
#include "brenthaven/text/named.h"
#include "brenthaven/text/sstring.h"
#include "brenthaven/text/sstringlist.h"

// The product word that modules pass; the store path has "Brent.Haven" in its place.
inline constexpr char const *kProductWord = "Brenthaven";

// A cursor on keys below "SOFTWARE\Tarnwick\" + product + "\" + module. Every value is a list of strings:
//
//   no item holds a NUL   REG_MULTI_SZ  items joined by one NUL, then two NUL bytes (an empty list: two NUL bytes)
//   some item holds one   REG_BINARY    count, NUL, then for each item its length, NUL and its bytes
//
// Count and lengths are decimal digits. No other type is read: a value entered by hand as REG_SZ is simply not seen.
// Failures give 0 or an empty list, which callers take as "not set"; ReadFailed tells a store that could not be read
// from one that lacks the value.
//
// The root is the key of the first successful Open; absolute paths start there. Until then every Open tries the
// module's full path again, and Get finds nothing. Copies share the open keys of the original, which stay open as long
// as any of them needs them. One thread.
//
// A product that holds a "/" is not a key but a directory: the store is then the file product + "/" + module, of the
// same format, and its root is the root of the file.
class Sdbfile {
public:
  // Bit 0 of flags: create what is missing and open for writing. A module with "/" or "\" leaves the object unopened,
  // with empty names.
  Sdbfile(SString product, SString module, int flags);
  // The form that modules use; the product words "Default" and "Brenthaven" mean "Brent.Haven". Here it is the product
  // that must not hold "/" or "\".
  Sdbfile(SString module, int flags, SString product);
  Sdbfile(Sdbfile const &other) = default;
  Sdbfile &operator=(Sdbfile const &) = delete;
  ~Sdbfile() = default;

  // Closes everything and opens path below the module's key; "/" and "" are that key itself.
  void Init(SString path, int flags);
  // Moves the cursor: "/x" from the root, "x" from where it stands, "/" to the root. 1, or 0 with the cursor on the key
  // that the path started from. An empty path gives 0.
  int Open(SString path, int flags);
  // Cursor back to the root. Always 1.
  int Close();
  // Closes cursor and root; the next Open starts from nothing.
  void CloseDB();

  // Value of the current key. Empty for a name of 0 or more than 256 bytes, and for a value above 1,024,000 bytes.
  SStringList Get(SString name) const;
  // The same for a value of any size, such as a routing table of many thousand lines.
  SStringList GetLong(SString const &name) const;
  int Set(SString const &name, SStringList const &list);
  // Sets many values, all of them or, with 0, none. In one step, where value by value each would be a step of its own.
  int Set(SNamedStringList const &values);
  int DeleteValue(SString const &name);
  // Deletes a child of the current key. 0 and the cursor on the child when the child holds values; 0 when it has
  // children of its own.
  int DeleteKey(SString const &name);
  // Deletes parent + "/" + key with everything below it; parent is absolute. A key that is missing is made first and
  // then removed. The cursor ends on parent.
  int RecursiveDeleteKey(SString const &parent, SString const &key);

  // Names of the child keys, and of the values, of the current key. Names of 2000 bytes and more end the list.
  SStringList Keys() const;
  SStringList Values() const;

  // One value by "module/section/.../name". A path of two components gives an empty list, because an empty section
  // can't be opened: at least three are needed.
  static SStringList GetDirect(SString const &path);

  // Each call on the store is atomic by itself; there is nothing to lock. Always 1.
  int Lock(int) { return 1; }
  int Unlock() { return 1; }

  // 1 when some read of settings by this process failed for another reason than absence since the last clear.
  static unsigned ReadFailed() { return RegReadFailed(); }
  static void ClearReadFailed() { RegClearReadFailed(); }

private:
  using KeyRef = std::shared_ptr<HKEY__>;  // null: the hive, which is the mark of "not opened"

  bool _IsStoreFile() const;
  KeyRef _OpenBelow(KeyRef const &base, SString const &path, int flags) const;
  KeyRef _OpenFirst(SString const &path, int flags) const;
  SStringList _Read(SString const &name, DWORD largest) const;
  static bool _Encode(SString const &name, SStringList const &list, RegValue &value);
  static SString _Pack(SStringList const &list);
  static SStringList _Unpack(SString const &text);

  SString _product;
  SString _module;
  KeyRef _root;
  KeyRef _current;
};
