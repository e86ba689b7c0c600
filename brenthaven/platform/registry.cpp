#include "brenthaven/platform/registry.h"

#include <sqlite3.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "brenthaven/platform/barrier.h"
#include "brenthaven/platform/forks.h"
#include "brenthaven/platform/secretfile.h"
#include "brenthaven/platform/sys.h"

// How a read goes: the file is looked at (is it the one we have open?) and its change counter is read, two short system
// calls; as long as the counter stands, answers come from the sections kept in memory. A section that is not there is
// loaded with one query. How a write goes: BEGIN IMMEDIATE, the statements, COMMIT; the commit moves the counter, which
// empties the memory of every process, ours included.

namespace {

constexpr size_t kSectionLimit = 1000;        // values; a larger section is asked value by value and not kept
constexpr size_t kSectionBytes = 256 * 1024;  // likewise, without its large values
constexpr size_t kLargeValue = 64 * 1024;     // bytes; one that is larger is not kept, and asked for each time
constexpr size_t kKeptSections = 256;         // sections in memory; all are dropped when one more would be kept
constexpr int kBusyMilliseconds = 30 * 1000;  // how long a call waits for another process's transaction
constexpr char const *kStoreFile = "/config/registry.sqlite";

constexpr char const *kSchema =
    "CREATE TABLE IF NOT EXISTS section (path TEXT PRIMARY KEY, parent TEXT) WITHOUT ROWID;"
    "CREATE INDEX IF NOT EXISTS section_parent ON section (parent, path);"
    "CREATE TABLE IF NOT EXISTS setting (section TEXT NOT NULL, name TEXT NOT NULL, type INTEGER NOT NULL,"
    " bytes BLOB NOT NULL, PRIMARY KEY (section, name)) WITHOUT ROWID;"
    "INSERT OR IGNORE INTO section VALUES ('', NULL);";

unsigned readFailed = 0;

struct Value {
  DWORD type = 0;
  std::string bytes;
  bool isKept = true;  // false for a large one, whose bytes are in the file alone
};

// What is known of one key.
struct Section {
  bool exists = false;
  bool whole = true;  // all values are in the map; false for a section above the limits
  std::map<std::string, Value, std::less<>> values;
};
using SectionRef = std::shared_ptr<Section const>;

std::string_view TextColumn(sqlite3_stmt *row, int column) {
  void const *bytes = sqlite3_column_blob(row, column);
  return bytes == nullptr ? std::string_view()
                          : std::string_view(static_cast<char const *>(bytes),
                                             static_cast<size_t>(sqlite3_column_bytes(row, column)));
}

// One use of a prepared statement: parameters are borrowed for the life of the object, which resets the statement.
class Query {
public:
  explicit Query(sqlite3_stmt *statement) : _statement(statement) {}
  Query(Query const &) = delete;
  Query &operator=(Query const &) = delete;
  ~Query() {
    if (_statement == nullptr) return;
    sqlite3_reset(_statement);  // repeats the result of the last step, which has been looked at
    sqlite3_clear_bindings(_statement);
  }
  Query &Text(int index, std::string_view text) {
    sqlite3_bind_text64(_statement, index, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
    return *this;
  }
  Query &Number(int index, sqlite3_int64 number) {
    sqlite3_bind_int64(_statement, index, number);
    return *this;
  }
  Query &Blob(int index, std::string_view bytes) {
    sqlite3_bind_blob64(_statement, index, bytes.empty() ? "" : bytes.data(), bytes.size(), SQLITE_STATIC);
    return *this;
  }
  int Step() { return sqlite3_step(_statement); }
  sqlite3_stmt *Row() { return _statement; }

private:
  sqlite3_stmt *_statement;
};

// One store file and this process's connection to it.
class Store {
public:
  // A store with secrets is not used while others can read or write its file.
  explicit Store(std::string path, bool hasSecrets = false) : _path(std::move(path)), _hasSecrets(hasSecrets) {}
  Store(Store const &) = delete;
  Store &operator=(Store const &) = delete;
  ~Store() { (void)Finish(); }  // a failed flush was told to the caller that closed the last handle, if any did

  std::string const &Path() const { return _path; }
  void PointAt(std::string path);
  LONG Finish();

  LONG Load(std::string const &key, SectionRef &section);
  LONG Find(std::string const &key, std::string const &name, Value &value);
  LONG Children(std::string const &key, std::vector<std::string> &names);
  LONG ValueNames(std::string const &key, std::vector<std::string> &names);

  LONG OpenRoot(bool writable);
  LONG MakeKey(std::string const &key);
  LONG SetValue(std::string const &key, std::string const &name, DWORD type, std::string_view bytes);
  LONG SetValues(std::string const &key, std::vector<RegValue> const &values);
  LONG DeleteValue(std::string const &key, std::string const &name);
  LONG DeleteKey(std::string const &key);

  LONG Check(std::string &fault);

private:
  enum class State { kEmpty, kReady, kFailed };  // kEmpty: no file, or no byte in it
  enum Statement { kLoad, kFind, kChildren, kNames, kInsertKey, kSet, kUnset, kClear, kDrop, kStatements };
  static char const *const kSql[kStatements];

  LONG _MakeFile(bool &isNew) const;
  State _Look();
  bool _Connect();
  void _Disconnect();
  void _ForgetInherited();
  bool _ReadCounter(std::uint32_t &counter) const;
  sqlite3_stmt *_Prepared(Statement which);
  LONG _ReadRows(Statement which, std::string const &key, std::function<bool(sqlite3_stmt *)> const &take);
  LONG _Write(std::function<LONG()> const &change);
  LONG _Change(Query &query, LONG whenNone);
  LONG _CheckKey(std::string const &key);
  LONG _SetInTransaction(std::string const &key, std::string_view name, DWORD type, std::string_view bytes);

  std::string _path;
  bool _hasSecrets;
  sqlite3 *_connection = nullptr;
  sqlite3_stmt *_statements[kStatements] = {};
  int _descriptor = -1;  // for the change counter; closed after the connection, since closing it drops SQLite's locks
  dev_t _device = 0;
  ino_t _inode = 0;
  unsigned long _forks = 0;  // of the process that made the connection
  bool _isNew = false;       // made by RegOpenStoreA and not yet flushed
  std::uint32_t _counter = 0;
  std::unordered_map<std::string, SectionRef> _sections;
};

char const *const Store::kSql[kStatements] = {
    "SELECT v.name, v.type, v.bytes FROM section AS k LEFT JOIN setting AS v ON v.section = k.path WHERE k.path = ?1",
    "SELECT type, bytes FROM setting WHERE section = ?1 AND name = ?2",
    "SELECT path FROM section WHERE parent = ?1 ORDER BY path",
    "SELECT name FROM setting WHERE section = ?1 ORDER BY name",
    "INSERT OR IGNORE INTO section VALUES (?1, ?2)",
    ("INSERT INTO setting SELECT path, ?2, ?3, ?4 FROM section WHERE path = ?1"
     " ON CONFLICT (section, name) DO UPDATE SET type = excluded.type, bytes = excluded.bytes"),
    "DELETE FROM setting WHERE section = ?1 AND name = ?2",
    "DELETE FROM setting WHERE section = ?1",
    "DELETE FROM section WHERE path = ?1",
};

LONG CantRead() {
  readFailed = 1;
  return ERROR_CANTREAD;
}

void Store::PointAt(std::string path) {
  _Disconnect();
  _path = std::move(path);
}

// Ends the connection; a file built by us is flushed first, since its writes were not.
LONG Store::Finish() {
  LONG status = ERROR_SUCCESS;
  if (_isNew && _forks == ForkCount() && _descriptor >= 0 && GetSyncMode() != SyncMode::kNo &&
      sys::Fsync(_descriptor) != 0)
    status = ERROR_CANTWRITE;
  _isNew = false;
  _Disconnect();
  return status;
}

// The four bytes at offset 24 of an SQLite file count its transactions. A file switched to write-ahead logging (byte 18
// is then 2) does not move them.
bool Store::_ReadCounter(std::uint32_t &counter) const {
  unsigned char bytes[28 - 18];
  if (sys::Pread(_descriptor, bytes, sizeof bytes, 18) != static_cast<ssize_t>(sizeof bytes)) return false;
  std::memcpy(&counter, bytes + 6, sizeof counter);
  return bytes[0] != 2;
}

// An SQLite connection must not be used across a fork. The parent still has it, so it is left alone, not closed.
void Store::_ForgetInherited() {
  _connection = nullptr;
  std::fill(std::begin(_statements), std::end(_statements), nullptr);
  _descriptor = -1;
  _isNew = false;
  _sections.clear();
}

void Store::_Disconnect() {
  if (_connection != nullptr && _forks != ForkCount()) return _ForgetInherited();
  for (sqlite3_stmt *&statement : _statements) {
    sqlite3_finalize(statement);
    statement = nullptr;
  }
  sqlite3_close(_connection);
  _connection = nullptr;
  if (_descriptor >= 0) sys::Close(_descriptor);
  _descriptor = -1;
  _sections.clear();
}

bool Store::_Connect() {
  _forks = ForkCount();
  _descriptor = sys::Open(_path.c_str(), O_RDONLY);
  struct stat info;
  if (_descriptor < 0 || sys::Fstat(_descriptor, &info) != 0) return false;
  _device = info.st_dev;
  _inode = info.st_ino;
  // Read and write even for a reader, who has to roll back what a crashed writer left; on a file that may not be
  // written SQLite falls back to reading by itself.
  if (sqlite3_open_v2(_path.c_str(), &_connection, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) return false;
  sqlite3_busy_timeout(_connection, kBusyMilliseconds);
  bool const flush = !_isNew && GetSyncMode() != SyncMode::kNo;
  char const *setUp = flush    ? "PRAGMA synchronous = EXTRA"
                      : _isNew ? "PRAGMA synchronous = OFF; PRAGMA journal_mode = MEMORY"
                               : "PRAGMA synchronous = OFF";
  return sqlite3_exec(_connection, setUp, nullptr, nullptr, nullptr) == SQLITE_OK;
}

// Makes the connection fit the file that now stands under the path, and drops what is kept when the file has changed.
Store::State Store::_Look() {
  if (_connection != nullptr && _forks != ForkCount()) _ForgetInherited();
  struct stat info;
  if (sys::Stat(_path.c_str(), &info) != 0) {
    int const error = errno;
    _Disconnect();
    return error == ENOENT ? State::kEmpty : State::kFailed;
  }
  if (_hasSecrets && !IsClosedToOthers(_path.c_str(), info)) return State::kFailed;
  if (_connection != nullptr && (info.st_ino != _inode || info.st_dev != _device)) _Disconnect();
  if (info.st_size == 0) {
    _sections.clear();
    return State::kEmpty;
  }
  if (_connection == nullptr && !_Connect()) {
    int const error = errno;
    _Disconnect();
    return error == ENOENT && sys::Stat(_path.c_str(), &info) != 0 ? State::kEmpty : State::kFailed;
  }
  std::uint32_t counter = 0;
  if (!_ReadCounter(counter) || counter != _counter) _sections.clear();
  _counter = counter;
  return State::kReady;
}

sqlite3_stmt *Store::_Prepared(Statement which) {
  sqlite3_stmt *&statement = _statements[which];
  if (statement == nullptr)
    sqlite3_prepare_v3(_connection, kSql[which], -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
  return statement;  // null when the file is damaged; stepping null is a misuse result, never a crash
}

// Gives every row to take until it answers false. The file has been looked at.
LONG Store::_ReadRows(Statement which, std::string const &key, std::function<bool(sqlite3_stmt *)> const &take) {
  Query query(_Prepared(which));
  query.Text(1, key);
  int result;
  while ((result = query.Step()) == SQLITE_ROW)
    if (!take(query.Row())) return ERROR_SUCCESS;
  return result == SQLITE_DONE ? ERROR_SUCCESS : CantRead();
}

// A section is kept only if the counter stood still while it was read: a writer that crashed in a commit leaves a
// counter that is taken back, and that a later commit reaches again.
LONG Store::Load(std::string const &key, SectionRef &section) {
  State const state = _Look();
  if (state == State::kFailed) return CantRead();
  if (auto kept = _sections.find(key); kept != _sections.end()) {
    section = kept->second;
  } else {
    auto loaded = std::make_shared<Section>();
    size_t bytes = 0;
    if (state == State::kReady) {
      LONG const status = _ReadRows(kLoad, key, [&](sqlite3_stmt *row) {
        loaded->exists = true;
        if (sqlite3_column_type(row, 0) == SQLITE_NULL) return true;  // a key without values
        std::string_view const data = TextColumn(row, 2);
        bool const isKept = data.size() <= kLargeValue;
        if (isKept) bytes += data.size();
        loaded->whole = loaded->values.size() < kSectionLimit && bytes <= kSectionBytes;
        if (!loaded->whole) return false;
        loaded->values.emplace(TextColumn(row, 0), Value{static_cast<DWORD>(sqlite3_column_int64(row, 1)),
                                                         std::string(isKept ? data : ""), isKept});
        return true;
      });
      if (status != ERROR_SUCCESS) return status;
      if (!loaded->whole) loaded->values.clear();
      std::uint32_t after = 0;
      if (_ReadCounter(after) && after == _counter) {
        if (_sections.size() >= kKeptSections) _sections.clear();
        _sections.emplace(key, loaded);
      }
    }
    section = std::move(loaded);
  }
  return section->exists ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND;
}

LONG Store::Find(std::string const &key, std::string const &name, Value &value) {
  SectionRef section;
  LONG status = Load(key, section);
  if (status != ERROR_SUCCESS) return status;
  if (section->whole) {
    auto found = section->values.find(name);
    if (found == section->values.end()) return ERROR_FILE_NOT_FOUND;
    value = found->second;
    if (value.isKept) return ERROR_SUCCESS;
  }
  Query query(_Prepared(kFind));
  int const result = query.Text(1, key).Text(2, name).Step();
  if (result == SQLITE_DONE) return ERROR_FILE_NOT_FOUND;
  if (result != SQLITE_ROW) return CantRead();
  value = {static_cast<DWORD>(sqlite3_column_int64(query.Row(), 0)), std::string(TextColumn(query.Row(), 1)), true};
  return ERROR_SUCCESS;
}

LONG Store::Children(std::string const &key, std::vector<std::string> &names) {
  names.clear();
  State const state = _Look();
  if (state == State::kFailed) return CantRead();
  if (state == State::kEmpty) return ERROR_SUCCESS;
  size_t const skip = key.empty() ? 0 : key.size() + 1;
  return _ReadRows(kChildren, key, [&](sqlite3_stmt *row) {
    names.emplace_back(TextColumn(row, 0).substr(skip));
    return true;
  });
}

LONG Store::ValueNames(std::string const &key, std::vector<std::string> &names) {
  names.clear();
  SectionRef section;
  LONG const status = Load(key, section);
  if (status != ERROR_SUCCESS) return status;
  if (section->whole) {
    for (auto const &[name, value] : section->values) names.push_back(name);
    return ERROR_SUCCESS;
  }
  return _ReadRows(kNames, key, [&](sqlite3_stmt *row) {
    names.emplace_back(TextColumn(row, 0));
    return true;
  });
}

// Makes an empty file if there is none. The mode is set here because SQLite would take it from the umask; its journal
// takes the mode of the file.
LONG Store::_MakeFile(bool &isNew) const {
  int const created = sys::Open(_path.c_str(), O_RDWR | O_CREAT | O_EXCL, 0660);
  isNew = created >= 0;
  if (!isNew) return errno == EEXIST ? ERROR_SUCCESS : ERROR_CANTWRITE;
  int const mode = sys::Fchmod(created, 0660);
  sys::Close(created);
  return mode == 0 ? ERROR_SUCCESS : ERROR_CANTWRITE;
}

// For a store opened by its path: the root key is there as soon as the file has its tables.
LONG Store::OpenRoot(bool writable) {
  SectionRef root;
  LONG const status = Load("", root);
  if (status != ERROR_FILE_NOT_FOUND || !writable) return status;
  LONG const made = _MakeFile(_isNew);
  return made == ERROR_SUCCESS ? _Write([] { return ERROR_SUCCESS; }) : made;
}

// Runs one change as a transaction. It is the change's own status that is told, except when the store refuses.
LONG Store::_Write(std::function<LONG()> const &change) {
  if (_Look() == State::kFailed) return ERROR_CANTWRITE;
  if (_connection == nullptr && !_Connect()) {
    _Disconnect();
    return ERROR_CANTWRITE;
  }
  auto run = [this](char const *sql) { return sqlite3_exec(_connection, sql, nullptr, nullptr, nullptr); };
  if (run("BEGIN IMMEDIATE") != SQLITE_OK) return ERROR_CANTWRITE;
  LONG status = run(kSchema) == SQLITE_OK ? change() : ERROR_CANTWRITE;
  if (status == ERROR_SUCCESS && run("COMMIT") != SQLITE_OK) status = ERROR_CANTWRITE;
  if (status != ERROR_SUCCESS) run("ROLLBACK");  // an error may have rolled back already; then there is nothing to do
  return status;
}

// Runs a statement that changes rows; whenNone is the status when it met none.
LONG Store::_Change(Query &query, LONG whenNone) {
  if (query.Step() != SQLITE_DONE) return ERROR_CANTWRITE;
  return sqlite3_changes(_connection) > 0 ? ERROR_SUCCESS : whenNone;
}

LONG Store::MakeKey(std::string const &key) {
  bool isNew;
  LONG const made = _MakeFile(isNew);
  if (made != ERROR_SUCCESS) return made;
  return _Write([&] {
    for (size_t end = 0, start = 0; end < key.size(); start = end + 1) {  // each prefix that ends at a "\"
      end = std::min(key.find('\\', start), key.size());
      Query query(_Prepared(kInsertKey));
      query.Text(1, std::string_view(key).substr(0, end));
      query.Text(2, std::string_view(key).substr(0, start == 0 ? 0 : start - 1));
      LONG const status = _Change(query, ERROR_SUCCESS);
      if (status != ERROR_SUCCESS) return status;
    }
    return ERROR_SUCCESS;
  });
}

// Whether a key can take values: the key of a handle may have been deleted since.
LONG Store::_CheckKey(std::string const &key) {
  SectionRef section;
  LONG const status = Load(key, section);
  if (status == ERROR_FILE_NOT_FOUND) return ERROR_KEY_DELETED;
  return status == ERROR_SUCCESS ? status : ERROR_CANTWRITE;
}

LONG Store::_SetInTransaction(std::string const &key, std::string_view name, DWORD type, std::string_view bytes) {
  Query query(_Prepared(kSet));
  query.Text(1, key).Text(2, name).Number(3, type).Blob(4, bytes);
  return _Change(query, ERROR_KEY_DELETED);
}

LONG Store::SetValue(std::string const &key, std::string const &name, DWORD type, std::string_view bytes) {
  LONG const status = _CheckKey(key);
  return status == ERROR_SUCCESS ? _Write([&] { return _SetInTransaction(key, name, type, bytes); }) : status;
}

LONG Store::SetValues(std::string const &key, std::vector<RegValue> const &values) {
  LONG const status = _CheckKey(key);
  if (status != ERROR_SUCCESS) return status;
  return _Write([&]() -> LONG {
    for (RegValue const &value : values)
      if (LONG const set = _SetInTransaction(key, value.name, value.type, value.bytes); set != ERROR_SUCCESS)
        return set;
    return ERROR_SUCCESS;
  });
}

LONG Store::DeleteValue(std::string const &key, std::string const &name) {
  Value value;
  LONG const status = Find(key, name, value);
  if (status != ERROR_SUCCESS) return status;
  return _Write([&] {
    Query query(_Prepared(kUnset));
    query.Text(1, key).Text(2, name);
    return _Change(query, ERROR_FILE_NOT_FOUND);
  });
}

LONG Store::DeleteKey(std::string const &key) {
  SectionRef section;
  LONG const status = Load(key, section);
  if (status != ERROR_SUCCESS) return status;
  return _Write([&]() -> LONG {
    bool hasChildren = false;
    LONG const read = _ReadRows(kChildren, key, [&](sqlite3_stmt *) {
      hasChildren = true;
      return false;
    });
    if (read != ERROR_SUCCESS) return read;
    if (hasChildren) return ERROR_ACCESS_DENIED;
    Query clear(_Prepared(kClear));
    clear.Text(1, key);
    LONG const cleared = _Change(clear, ERROR_SUCCESS);
    if (cleared != ERROR_SUCCESS) return cleared;
    Query drop(_Prepared(kDrop));
    drop.Text(1, key);
    return _Change(drop, ERROR_FILE_NOT_FOUND);
  });
}

LONG Store::Check(std::string &fault) {
  fault.clear();
  State const state = _Look();
  if (state == State::kEmpty) return ERROR_SUCCESS;
  auto const take = [](void *text, int, char **columns, char **) {
    if (columns[0] != nullptr) *static_cast<std::string *>(text) = columns[0];
    return 0;
  };
  if (state == State::kFailed)
    fault = "cannot be opened";
  else if (sqlite3_exec(_connection, "PRAGMA quick_check(1)", take, &fault, nullptr) != SQLITE_OK)
    fault = sqlite3_errmsg(_connection);
  if (fault != "ok") return ERROR_CANTREAD;
  fault.clear();
  return ERROR_SUCCESS;
}

// The store of this process, pointed anew when Brenthaven has changed. Never destroyed: keys may be closed at exit.
std::shared_ptr<Store> const &ProcessStore() {
  static auto const *const store = new std::shared_ptr<Store>(std::make_shared<Store>("", true));
  static std::string *const root = new std::string();
  char const *now = getenv("Brenthaven");
  if (now == nullptr) now = "";
  if (*root != now || (*store)->Path().empty()) {
    *root = now;
    (*store)->PointAt(*root + kStoreFile);
  }
  return *store;
}

// Stores opened by path and still in use; two connections of a process to one file would undo each other's locks.
std::map<std::string, std::weak_ptr<Store>> &OpenStores() {
  static auto *const stores = new std::map<std::string, std::weak_ptr<Store>>();
  return *stores;
}

// Full path of a key below another, without empty components.
std::string Below(std::string_view parent, char const *path) {
  std::string full(parent);
  std::string_view rest(path == nullptr ? "" : path);
  while (!rest.empty()) {
    size_t const length = std::min(rest.find('\\'), rest.size());
    if (length > 0) {
      if (!full.empty()) full += '\\';
      full += rest.substr(0, length);
    }
    rest.remove_prefix(std::min(length + 1, rest.size()));
  }
  return full;
}

// Hands a value out under the rules for data and *length.
LONG Deliver(Value const &value, DWORD *type, BYTE *data, DWORD *length) {
  if (type != nullptr) *type = value.type;
  if (length == nullptr) return data == nullptr ? ERROR_SUCCESS : ERROR_INVALID_PARAMETER;
  DWORD const room = *length;
  *length = static_cast<DWORD>(value.bytes.size());
  if (data == nullptr) return ERROR_SUCCESS;
  if (room < value.bytes.size()) return ERROR_MORE_DATA;
  value.bytes.copy(reinterpret_cast<char *>(data), value.bytes.size());
  return ERROR_SUCCESS;
}

// The index-th name of a list, with a NUL behind it.
LONG DeliverName(std::vector<std::string> const &names, DWORD index, char *name, DWORD *length) {
  if (name == nullptr || length == nullptr) return ERROR_INVALID_PARAMETER;
  if (index >= names.size()) return ERROR_NO_MORE_ITEMS;
  std::string const &text = names[index];
  if (*length <= text.size()) return ERROR_MORE_DATA;
  name[text.copy(name, text.size())] = '\0';
  *length = static_cast<DWORD>(text.size());
  return ERROR_SUCCESS;
}

}  // namespace

// An open key: a store, a full path and what may be done with it.
struct HKEY__ {
  std::shared_ptr<Store> store;  // null: the store of the process, wherever that is by now
  std::string path;
  bool writable = false;
  std::vector<std::string> children;  // the lists that are being enumerated
  std::vector<std::string> values;
};

namespace {

Store &StoreOf(HKEY key) { return key == HKEY_LOCAL_MACHINE || key->store == nullptr ? *ProcessStore() : *key->store; }

std::string_view PathOf(HKEY key) { return key == HKEY_LOCAL_MACHINE ? std::string_view() : key->path; }

bool HasValues(HKEY key) { return key != nullptr && key != HKEY_LOCAL_MACHINE; }

HKEY MakeHandle(HKEY parent, std::string path, REGSAM access) {
  return new HKEY__{
      parent == HKEY_LOCAL_MACHINE ? nullptr : parent->store, std::move(path), (access & KEY_SET_VALUE) != 0, {}, {}};
}

}  // namespace

LONG RegOpenKeyExA(HKEY parent, char const *path, DWORD, REGSAM access, HKEY *result) {
  if (parent == nullptr) return ERROR_INVALID_HANDLE;
  if (result == nullptr) return ERROR_INVALID_PARAMETER;
  std::string full = Below(PathOf(parent), path);
  SectionRef section;
  LONG const status = StoreOf(parent).Load(full, section);
  if (status == ERROR_SUCCESS) *result = MakeHandle(parent, std::move(full), access);
  return status;
}

LONG RegCreateKeyExA(HKEY parent, char const *path, DWORD, char *, DWORD, REGSAM access, SECURITY_ATTRIBUTES const *,
                     HKEY *result, DWORD *disposition) {
  LONG status = RegOpenKeyExA(parent, path, 0, access, result);
  if (disposition != nullptr) *disposition = REG_OPENED_EXISTING_KEY;
  if (status != ERROR_FILE_NOT_FOUND) return status;
  std::string full = Below(PathOf(parent), path);
  status = StoreOf(parent).MakeKey(full);
  if (status != ERROR_SUCCESS) return status;
  if (disposition != nullptr) *disposition = REG_CREATED_NEW_KEY;
  *result = MakeHandle(parent, std::move(full), access);
  return ERROR_SUCCESS;
}

LONG RegCloseKey(HKEY key) {
  if (key == nullptr) return ERROR_INVALID_HANDLE;
  if (key == HKEY_LOCAL_MACHINE) return ERROR_SUCCESS;
  std::shared_ptr<Store> const store = std::move(key->store);
  delete key;
  return store != nullptr && store.use_count() == 1 ? store->Finish() : ERROR_SUCCESS;
}

LONG RegQueryValueExA(HKEY key, char const *name, DWORD *, DWORD *type, BYTE *data, DWORD *length) {
  if (!HasValues(key)) return key == nullptr ? ERROR_INVALID_HANDLE : ERROR_FILE_NOT_FOUND;
  Value value;
  LONG const status = StoreOf(key).Find(key->path, name == nullptr ? "" : name, value);
  return status == ERROR_SUCCESS ? Deliver(value, type, data, length) : status;
}

LONG RegSetValueExA(HKEY key, char const *name, DWORD, DWORD type, BYTE const *data, DWORD length) {
  if (key == nullptr) return ERROR_INVALID_HANDLE;
  if (!HasValues(key) || !key->writable) return ERROR_ACCESS_DENIED;
  if (data == nullptr && length > 0) return ERROR_INVALID_PARAMETER;
  return StoreOf(key).SetValue(key->path, name == nullptr ? "" : name, type,
                               std::string_view(reinterpret_cast<char const *>(data), length));
}

LONG RegSetValuesA(HKEY key, std::vector<RegValue> const &values) {
  if (key == nullptr) return ERROR_INVALID_HANDLE;
  if (!HasValues(key) || !key->writable) return ERROR_ACCESS_DENIED;
  return StoreOf(key).SetValues(key->path, values);
}

LONG RegDeleteValueA(HKEY key, char const *name) {
  if (key == nullptr) return ERROR_INVALID_HANDLE;
  if (!HasValues(key) || !key->writable) return ERROR_ACCESS_DENIED;
  return StoreOf(key).DeleteValue(key->path, name == nullptr ? "" : name);
}

LONG RegEnumKeyExA(HKEY key, DWORD index, char *name, DWORD *length, DWORD *, char *, DWORD *, FILETIME *) {
  if (key == nullptr) return ERROR_INVALID_HANDLE;
  static auto *const hiveChildren = new std::vector<std::string>();
  std::vector<std::string> &names = key == HKEY_LOCAL_MACHINE ? *hiveChildren : key->children;
  if (index == 0) {
    LONG const status = StoreOf(key).Children(std::string(PathOf(key)), names);
    if (status != ERROR_SUCCESS) return status;
  }
  return DeliverName(names, index, name, length);
}

LONG RegEnumValueA(HKEY key, DWORD index, char *name, DWORD *length, DWORD *, DWORD *type, BYTE *data,
                   DWORD *dataLength) {
  if (!HasValues(key)) return key == nullptr ? ERROR_INVALID_HANDLE : ERROR_NO_MORE_ITEMS;
  if (index == 0) {
    LONG const status = StoreOf(key).ValueNames(key->path, key->values);
    if (status != ERROR_SUCCESS) return status;
  }
  LONG const status = DeliverName(key->values, index, name, length);
  if (status != ERROR_SUCCESS || (type == nullptr && dataLength == nullptr)) return status;
  return RegQueryValueExA(key, name, nullptr, type, data, dataLength);
}

LONG RegDeleteKeyA(HKEY parent, char const *path) {
  if (parent == nullptr) return ERROR_INVALID_HANDLE;
  std::string const full = Below(PathOf(parent), path);
  return full.empty() ? ERROR_ACCESS_DENIED : StoreOf(parent).DeleteKey(full);
}

LONG RegOpenStoreA(char const *path, REGSAM access, HKEY *result) {
  if (path == nullptr || result == nullptr) return ERROR_INVALID_PARAMETER;
  std::weak_ptr<Store> &known = OpenStores()[path];
  std::shared_ptr<Store> store = known.lock();
  if (store == nullptr) store = std::make_shared<Store>(path);
  bool const writable = (access & KEY_SET_VALUE) != 0;
  LONG const status = store->OpenRoot(writable);
  if (status != ERROR_SUCCESS) return status;
  known = store;
  *result = new HKEY__{std::move(store), "", writable, {}, {}};
  return ERROR_SUCCESS;
}

LONG RegCheckStore(std::string &fault) { return ProcessStore()->Check(fault); }

unsigned RegReadFailed() { return readFailed; }
void RegClearReadFailed() { readFailed = 0; }
