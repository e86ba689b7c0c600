#include "brenthaven/store/sdbfile.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr char const *kStoreRoot = "SOFTWARE\\Tarnwick\\";
constexpr char const *kStoredProduct = "Brent.Haven";
constexpr int kMaxNameLength = 256;
constexpr DWORD kFirstBuffer = 2000;          // most values fit
constexpr DWORD kLargestValue = 1024000;      // of Get
constexpr DWORD kLargestLongValue = 1 << 28;  // of GetLong
constexpr DWORD kListBuffer = 2000;           // for a name in an enumeration, with its NUL
constexpr int kCreate = 1;                    // bit 0 of the flags of Open

REGSAM AccessFor(int flags) { return (flags & kCreate) != 0 ? KEY_ALL_ACCESS : KEY_READ; }

bool HoldsSeparator(SString const &text) { return text.Index('/', 0) >= 0 || text.Index('\\', 0) >= 0; }

// Names go to the store as C strings: one that holds a NUL would name something else.
bool IsName(SString const &text) { return text.Index('\0', 0) < 0; }

SString WithoutFirst(SString const &text) { return text.Segment(1, text.Length() - 1); }

std::string WithBackslashes(SString const &path) {
  std::string text(path.View());
  std::replace(text.begin(), text.end(), '/', '\\');  // doubled ones count once in the store
  return text;
}

using Enumerate = LONG (*)(HKEY key, DWORD index, char *name, DWORD *length);

SStringList ListNames(HKEY key, Enumerate next) {
  SStringList names;
  char name[kListBuffer];
  DWORD length = sizeof name;
  for (DWORD index = 0; next(key, index, name, &length) == ERROR_SUCCESS; ++index) {
    names.Push(SString(name, static_cast<int>(length)));
    length = sizeof name;
  }
  return names;
}

}  // namespace

Sdbfile::Sdbfile(SString product, SString module, int flags) {
  if (HoldsSeparator(module)) return;
  _product = product;
  _module = module;
  Init("/", flags);
}

Sdbfile::Sdbfile(SString module, int flags, SString product) {
  if (HoldsSeparator(product)) return;
  _product = product == "Default" || product == kProductWord ? SString(kStoredProduct) : product;
  _module = module;
  Init("/", flags);
}

void Sdbfile::Init(SString path, int flags) {
  CloseDB();
  if (path[0] == '/') path = WithoutFirst(path);
  Open(path.Length() == 0 ? SString(".") : path, flags);
}

bool Sdbfile::_IsStoreFile() const { return _product.Index('/', 0) >= 0; }

// Opens a key by a path relative to another one; null when that fails.
Sdbfile::KeyRef Sdbfile::_OpenBelow(KeyRef const &base, SString const &path, int flags) const {
  if (!IsName(path)) return nullptr;
  std::string const below = WithBackslashes(path);
  HKEY const parent = base == nullptr ? HKEY_LOCAL_MACHINE : base.get();
  HKEY key = nullptr;
  LONG const status = (flags & kCreate) != 0 ? RegCreateKeyExA(parent, below.c_str(), 0, nullptr, 0, AccessFor(flags),
                                                               nullptr, &key, nullptr)
                                             : RegOpenKeyExA(parent, below.c_str(), 0, AccessFor(flags), &key);
  return status == ERROR_SUCCESS ? KeyRef(key, RegCloseKey) : nullptr;
}

// The first key of an instance: path below the module's place, which "." names itself.
Sdbfile::KeyRef Sdbfile::_OpenFirst(SString const &path, int flags) const {
  SString const below = path == "." ? SString("") : path;
  if (_IsStoreFile()) {
    SString const file = _product + "/" + _module;
    HKEY key = nullptr;
    if (!IsName(file) || RegOpenStoreA(file, AccessFor(flags), &key) != ERROR_SUCCESS) return nullptr;
    KeyRef const root(key, RegCloseKey);
    return below.Length() == 0 ? root : _OpenBelow(root, below, flags);
  }
  SString full = kStoreRoot;
  full += _product;
  if (_product.Length() > 0) full += '\\';
  full += _module;
  if (_module.Length() > 0) full += '\\';
  return _OpenBelow(nullptr, full + below, flags);
}

int Sdbfile::Open(SString path, int flags) {
  if (path.Length() == 0) return 0;
  if (_current == nullptr) {
    _root = _current = _OpenFirst(path, flags);
    return _root != nullptr ? 1 : 0;
  }
  if (path[0] == '/') {
    _current = _root;
    if (path.Length() == 1) return 1;
    path = WithoutFirst(path);
  }
  KeyRef const opened = _OpenBelow(_current, path, flags);
  if (opened == nullptr) return 0;
  _current = opened;
  return 1;
}

int Sdbfile::Close() {
  _current = _root;
  return 1;
}

void Sdbfile::CloseDB() {
  _current = nullptr;
  _root = nullptr;
}

SStringList Sdbfile::Get(SString name) const { return _Read(name, kLargestValue); }

SStringList Sdbfile::GetLong(SString const &name) const { return _Read(name, kLargestLongValue); }

SStringList Sdbfile::_Read(SString const &name, DWORD largest) const {
  if (_current == nullptr || name.Length() == 0 || name.Length() > kMaxNameLength || !IsName(name))
    return SStringList();
  std::vector<char> buffer(kFirstBuffer);
  DWORD type = 0;
  DWORD length = kFirstBuffer;
  auto const query = [&] {
    return RegQueryValueExA(_current.get(), name, nullptr, &type, reinterpret_cast<BYTE *>(buffer.data()), &length);
  };
  LONG status = query();
  while (status == ERROR_MORE_DATA && length <= largest) {  // once, unless somebody is writing longer ones meanwhile
    buffer.resize(length);
    status = query();
  }
  if (status != ERROR_SUCCESS) return SStringList();
  if (type == REG_BINARY) return _Unpack(SString(buffer.data(), static_cast<int>(length)));
  if (type != REG_MULTI_SZ) return SStringList();
  while (length > 0 && buffer[length - 1] == '\0') --length;
  if (length == 0) return SStringList();  // so one empty item reads back as none
  return SString(buffer.data(), static_cast<int>(length)).SplitExact(SString('\0', 1), 0);
}

int Sdbfile::Set(SString const &name, SStringList const &list) {
  RegValue value;
  return _current != nullptr && _Encode(name, list, value) &&
         RegSetValueExA(_current.get(), value.name.c_str(), 0, value.type,
                        reinterpret_cast<BYTE const *>(value.bytes.data()),
                        static_cast<DWORD>(value.bytes.size())) == ERROR_SUCCESS;
}

int Sdbfile::Set(SNamedStringList const &values) {
  if (_current == nullptr) return 0;
  SStringList const names = values.Keys();
  std::vector<RegValue> encoded(static_cast<size_t>(names.Length()));
  size_t count = 0;
  for (SString const &name : names)
    if (!_Encode(name, values.Get(name), encoded[count++])) return 0;
  return RegSetValuesA(_current.get(), encoded) == ERROR_SUCCESS;
}

// False for a name that can't be one.
bool Sdbfile::_Encode(SString const &name, SStringList const &list, RegValue &value) {
  if (name.Length() == 0 || !IsName(name)) return false;
  bool const packed = list.Join().Index('\0', 0) >= 0;
  SString const bytes = packed ? _Pack(list) : list.Join(SString('\0', 1)) + SString('\0', 2);
  value = {std::string(name.View()), packed ? REG_BINARY : REG_MULTI_SZ, std::string(bytes.View())};
  return true;
}

int Sdbfile::DeleteValue(SString const &name) {
  return _current != nullptr && IsName(name) && RegDeleteValueA(_current.get(), name) == ERROR_SUCCESS;
}

int Sdbfile::DeleteKey(SString const &name) {
  if (_current == nullptr) return 0;
  KeyRef const base = _current;
  KeyRef const child = _OpenBelow(base, name, 0);
  if (child == nullptr) return 0;
  _current = child;
  if (Values().Length() > 0) return 0;
  _current = base;
  return RegDeleteKeyA(base.get(), WithBackslashes(name).c_str()) == ERROR_SUCCESS;
}

int Sdbfile::RecursiveDeleteKey(SString const &parent, SString const &key) {
  SString const full = parent + (parent.Length() == 1 ? "" : "/") + key;
  if (!Open(full, kCreate)) return 0;
  SStringList const values = Values();
  for (SString const &name : values)
    if (!DeleteValue(name)) return 0;
  SStringList const keys = Keys();
  for (SString const &name : keys)
    if (!RecursiveDeleteKey(full, name)) return 0;
  return Open(parent, kCreate) && DeleteKey(key);
}

SStringList Sdbfile::Keys() const {
  if (_current == nullptr) return SStringList();
  return ListNames(_current.get(), [](HKEY key, DWORD index, char *name, DWORD *length) {
    return RegEnumKeyExA(key, index, name, length, nullptr, nullptr, nullptr, nullptr);
  });
}

SStringList Sdbfile::Values() const {
  if (_current == nullptr) return SStringList();
  return ListNames(_current.get(), [](HKEY key, DWORD index, char *name, DWORD *length) {
    return RegEnumValueA(key, index, name, length, nullptr, nullptr, nullptr, nullptr);
  });
}

SStringList Sdbfile::GetDirect(SString const &path) {
  SStringList parts = path.SplitExact("/", 0);
  if (parts.Length() < 2) return SStringList();
  SString const module = parts.Shift();
  SString const name = parts.Pop();
  Sdbfile settings(module, 0, kProductWord);
  if (!settings.Open(parts.Join("/"), 0)) return SStringList();
  return settings.Get(name);
}

SString Sdbfile::_Pack(SStringList const &list) {
  SString text(list.Length());
  text += '\0';
  for (SString const &item : list) {
    text += SString(item.Length());
    text += '\0';
    text += item;
  }
  return text;
}

SStringList Sdbfile::_Unpack(SString const &text) {
  char const *const start = text;
  char const *const end = start + text.Length();
  char *rest = nullptr;
  long const count = strtol(start, &rest, 10);  // the string has a NUL behind its last byte, where this stops at last
  SStringList list;
  if (rest == start || rest >= end || *rest != '\0') return list;
  char const *at = rest + 1;
  for (long i = 0; i < count && at < end; ++i) {
    long const length = strtol(at, &rest, 10);
    // The length is measured from its own first digit, so it is short by the digits and their NUL: the last item may
    // claim a few bytes more than there are, and is cut to what is left.
    if (rest == at || *rest != '\0' || length < 0 || length > end - at - 1) break;
    at = std::min<char const *>(rest + 1, end);
    long const taken = std::min<long>(length, end - at);
    list.Push(SString(at, static_cast<int>(taken)));
    at += taken;
  }
  return list;
}
