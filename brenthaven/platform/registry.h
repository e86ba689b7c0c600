// brenthaven/platform/registry.h - a hierarchical store of named values, reached by nine operations.
//
// The store is one SQLite file, config/registry.sqlite below the value of Brenthaven in the environment:
//
//   table section  path TEXT (primary key), parent TEXT: a key by its full path, components joined by "\"; the root is
//   "" table setting  section TEXT and name TEXT (primary key together), type INTEGER, bytes BLOB: a value
//
// All names compare byte for byte. Each call that writes is one transaction, durable when it returns unless SpoolSync
// is "no". A missing or empty file reads as an empty store, and the first write makes it (mode 0660). Since it holds
// passwords, it is neither read nor written while others than its owner and group could do so. A process holds one
// connection, opened at first use, and opens it anew when Brenthaven changes, when another file stands under the
// path, or after a fork. Values of a key are read with one query and kept until any process commits a change to the
// file; keys with very many values and large values (kSectionLimit, kLargeValue in the source) are asked each time.
//
// Path rules: components are separated by "\", empty components count for nothing, and an empty path means the key
// itself. Results are the status codes below; ERROR_FILE_NOT_FOUND is absence, and RegReadFailed tells whether some
// read since the last RegClearReadFailed failed for another reason, such as a damaged file.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

using LONG = std::int32_t;
using DWORD = std::uint32_t;
using BYTE = unsigned char;
using REGSAM = DWORD;
using HKEY = struct HKEY__ *;
struct SECURITY_ATTRIBUTES;
struct FILETIME;

// Always open; parent of every key of the process's store. It takes part in creating, opening, enumerating and deleting
// keys, and holds no values.
// NOLINTNEXTLINE(performance-no-int-to-ptr): a fixed mark that is never followed
inline HKEY const HKEY_LOCAL_MACHINE = reinterpret_cast<HKEY>(static_cast<std::uintptr_t>(0x80000002));

inline constexpr REGSAM KEY_READ = 0x20019;
inline constexpr REGSAM KEY_ALL_ACCESS = 0xF003F;
inline constexpr REGSAM KEY_SET_VALUE = 0x0002;  // the bit of an access mask that lets values be set and deleted

inline constexpr DWORD REG_SZ = 1;
inline constexpr DWORD REG_BINARY = 3;
inline constexpr DWORD REG_MULTI_SZ = 7;

inline constexpr DWORD REG_CREATED_NEW_KEY = 1;
inline constexpr DWORD REG_OPENED_EXISTING_KEY = 2;

inline constexpr LONG ERROR_SUCCESS = 0;
inline constexpr LONG ERROR_FILE_NOT_FOUND = 2;
inline constexpr LONG ERROR_ACCESS_DENIED = 5;
inline constexpr LONG ERROR_INVALID_HANDLE = 6;
inline constexpr LONG ERROR_INVALID_PARAMETER = 87;
inline constexpr LONG ERROR_MORE_DATA = 234;
inline constexpr LONG ERROR_NO_MORE_ITEMS = 259;
inline constexpr LONG ERROR_CANTREAD = 1012;
inline constexpr LONG ERROR_CANTWRITE = 1013;
inline constexpr LONG ERROR_KEY_DELETED = 1018;

// Opens an existing key by a path below an open key. The options word is not used.
LONG RegOpenKeyExA(HKEY parent, char const *path, DWORD options, REGSAM access, HKEY *result);
// Opens a key and makes it, with all keys above it, when it is missing. A parent opened for reading is good enough.
// disposition may be null. Class, options and security attributes are not kept.
LONG RegCreateKeyExA(HKEY parent, char const *path, DWORD reserved, char *className, DWORD options, REGSAM access,
                     SECURITY_ATTRIBUTES const *security, HKEY *result, DWORD *disposition);
// Frees the handle; every handle is closed once. The hive may be closed, with no effect.
LONG RegCloseKey(HKEY key);

// Reads a value. *length holds the size of data on entry and the size of the value on return; with a data of null only
// type and size are told. ERROR_MORE_DATA when data is too small; *length is then the size needed.
LONG RegQueryValueExA(HKEY key, char const *name, DWORD *reserved, DWORD *type, BYTE *data, DWORD *length);
// Writes or replaces a value. The key must have been opened with KEY_SET_VALUE and still stand in the store.
LONG RegSetValueExA(HKEY key, char const *name, DWORD reserved, DWORD type, BYTE const *data, DWORD length);
// Writes many values in one transaction: all of them, or with a failure none.
struct RegValue {
  std::string name;
  DWORD type = 0;
  std::string bytes;
};
LONG RegSetValuesA(HKEY key, std::vector<RegValue> const &values);
LONG RegDeleteValueA(HKEY key, char const *name);

// The index-th name in byte order, ERROR_NO_MORE_ITEMS past the end. *length is the size of name with room for the NUL
// on entry and the name's length without it on return. The list is taken when index is 0 and stays as it was through
// the enumeration, whatever is added or deleted meanwhile.
LONG RegEnumKeyExA(HKEY key, DWORD index, char *name, DWORD *length, DWORD *reserved, char *className,
                   DWORD *classLength, FILETIME *lastWrite);
LONG RegEnumValueA(HKEY key, DWORD index, char *name, DWORD *length, DWORD *reserved, DWORD *type, BYTE *data,
                   DWORD *dataLength);

// Deletes a key with its values. ERROR_ACCESS_DENIED while it has child keys, and for the root.
LONG RegDeleteKeyA(HKEY parent, char const *path);

// Opens the root key of another store file of the same format, such as a compiled routing table. Read access needs the
// file to be there (ERROR_FILE_NOT_FOUND otherwise); with KEY_SET_VALUE it is made. A file that this call made is
// written without a flush for each call, and is flushed when its last handle is closed: it is meant to be built under a
// temporary name and renamed after that. All handles of one path in a process share one connection.
LONG RegOpenStoreA(char const *path, REGSAM access, HKEY *result);

// Looks through the whole file of the process's store: ERROR_SUCCESS when it hangs together, or there is none; else
// ERROR_CANTREAD with the first fault in words, and RegReadFailed as it was. Reads notice most damage by themselves,
// but only where they come by.
LONG RegCheckStore(std::string &fault);

// 1 when a read failed for another reason than absence since the flag was last cleared: damaged file, input or output
// error, no descriptors left, a lock not granted in time, a file that is open to others.
unsigned RegReadFailed();
void RegClearReadFailed();
