#include "tests/crash/disk.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string_view>

namespace {

using Kind = SFileOperation::Kind;

[[noreturn]] void Die(std::string const &what) {
  perror(what.c_str());
  abort();
}

std::string ReadFile(std::string const &path) {
  int const fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) Die(path);
  std::string bytes;
  char block[1 << 16];
  for (ssize_t got; (got = read(fd, block, sizeof block)) > 0;) bytes.append(block, static_cast<size_t>(got));
  (void)close(fd);
  return bytes;
}

void WriteFile(std::string const &path, SDiskImage::Node const &node) {
  int const fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, node.mode);
  if (fd < 0 || fchmod(fd, node.mode) != 0) Die(path);
  for (size_t done = 0; done < node.bytes.size();) {
    ssize_t const wrote = write(fd, node.bytes.data() + done, node.bytes.size() - done);
    if (wrote <= 0) Die(path);
    done += static_cast<size_t>(wrote);
  }
  (void)close(fd);
}

std::string ParentOf(std::string const &path) {
  size_t const slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

void Mix(size_t &hash, size_t value) { hash = hash * 1099511628211UL ^ (value + 0x9e3779b97f4a7c15UL); }

bool IsFlush(Kind kind) { return kind == Kind::kFlushFile || kind == Kind::kFlushDirectory || kind == Kind::kFlushAll; }

}  // namespace

SDiskImage::Node::Node(std::string content, mode_t permissions)
    : bytes(std::move(content)), mode(permissions), hash(std::hash<std::string>{}(bytes)) {}

SDiskImage SDiskImage::Take(std::string const &top) {
  SDiskImage image;
  std::map<ino_t, std::shared_ptr<Node const>> known;
  for (auto const &entry : std::filesystem::recursive_directory_iterator(top)) {
    std::string const path = entry.path().string();
    std::string const relative = path.substr(top.size() + 1);
    struct stat info;
    if (lstat(path.c_str(), &info) != 0) Die(path);
    if (S_ISDIR(info.st_mode)) image.directories.insert(relative);
    if (!S_ISREG(info.st_mode)) continue;
    auto &node = known[info.st_ino];
    if (node == nullptr) node = std::make_shared<Node const>(ReadFile(path), info.st_mode & 07777);
    image.files[relative] = node;
  }
  return image;
}

void SDiskImage::Put(std::string const &top) const {
  std::filesystem::remove_all(top);
  if (::mkdir(top.c_str(), 0770) != 0) Die(top);
  for (std::string const &directory : directories)
    if (::mkdir((top + "/" + directory).c_str(), 0770) != 0) Die(directory);
  std::map<Node const *, std::string> first;
  for (auto const &[relative, node] : files) {
    std::string const path = top + "/" + relative;
    if (auto const [at, isNew] = first.emplace(node.get(), path); isNew)
      WriteFile(path, *node);
    else if (::link(at->second.c_str(), path.c_str()) != 0)
      Die(path);
  }
}

size_t SDiskImage::Hash() const {
  size_t hash = 0;
  for (std::string const &directory : directories) Mix(hash, std::hash<std::string>{}(directory));
  for (auto const &[path, node] : files) {
    Mix(hash, std::hash<std::string>{}(path));
    Mix(hash, node->hash);
  }
  return hash;
}

SPowerCut::SPowerCut(SDiskImage const &before, std::vector<SFileOperation> operations)
    : _before(before), _operations(std::move(operations)) {}

void SPowerCut::_Reset() {
  _states = 0;
  _strictStates = 0;
  _files.clear();
  _byNumber.clear();
  _unsure.clear();
  _now = Names();
  _now.directories = _before.directories;
  std::map<SDiskImage::Node const *, size_t> known;
  for (auto const &[path, node] : _before.files) {
    auto const [at, isNew] = known.emplace(node.get(), _files.size());
    if (isNew) _files.push_back({node->bytes, node->bytes, node->mode, {}, {}});
    _now.files[path] = at->second;
  }
  _sure = _now;
}

bool SPowerCut::Enumerate(Effort const &effort, Visit const &visit) {
  auto const passBy = [](SDiskImage const &, std::uint64_t) { return true; };
  _seen.clear();
  _stride = 1;
  if (effort.mostStates != SIZE_MAX) {
    (void)_Enumerate(effort, passBy);
    _stride = std::max<size_t>(1, (_seen.size() + effort.mostStates - 1) / effort.mostStates);
    _seen.clear();
  }
  if (effort.withoutFlush != Effort::kNone) {
    if (_withAllFlushes.empty()) {
      Effort withAll = effort;
      withAll.withoutFlush = Effort::kNone;
      (void)_Enumerate(withAll, passBy);
      _withAllFlushes = _seen;
    }
    _seen = _withAllFlushes;
  }
  return _Enumerate(effort, visit);
}

bool SPowerCut::_Enumerate(Effort const &effort, Visit const &visit) {
  _Reset();
  _random.seed(effort.seed);
  std::uint64_t notes = 0;
  for (size_t i = 0; i < _operations.size(); ++i) {
    SFileOperation const &operation = _operations[_at = i];
    if (operation.kind == Kind::kNote) notes |= std::uint64_t{1} << operation.offset;
    _Do(operation, static_cast<long>(i) != effort.withoutFlush);
    if (operation.kind == Kind::kMeet) continue;
    if (!_TellOrdered(_NotesBeforeNextFlush(i, notes, effort), visit)) return false;
    if (!_TellStrict(effort, notes, visit)) return false;
  }
  return true;
}

std::string SPowerCut::Described(size_t index) const {
  constexpr char const *kNames[] = {"meet",   "create", "unnamed", "write", "size",  "link",      "rename",
                                    "unlink", "mkdir",  "rmdir",   "flush", "flush", "flush all", "success"};
  SFileOperation const &operation = _operations[index];
  std::string text = std::to_string(index) + " " + kNames[static_cast<size_t>(operation.kind)];
  if (operation.file != 0) text += " #" + std::to_string(operation.file);
  for (std::string const &path : {operation.path, operation.target})
    if (!path.empty()) text += " " + path;
  return text;
}

// In the ordered model the disk may lag behind by any number of operations back to the last flush: what it holds now
// may also be what it holds when a later success has been reported.
std::uint64_t SPowerCut::_NotesBeforeNextFlush(size_t from, std::uint64_t notes, Effort const &effort) const {
  for (size_t i = from + 1; i < _operations.size(); ++i) {
    if (_operations[i].kind == Kind::kNote) notes |= std::uint64_t{1} << _operations[i].offset;
    if (IsFlush(_operations[i].kind) && static_cast<long>(i) != effort.withoutFlush) break;
  }
  return notes;
}

void SPowerCut::_Do(SFileOperation const &operation, bool flushes) {
  switch (operation.kind) {
    case Kind::kNote:
      return;
    case Kind::kMeet:
      if (auto const found = _now.files.find(operation.path); found != _now.files.end())
        _byNumber[operation.file] = found->second;
      return;
    case Kind::kWrite:
    case Kind::kSize:
      return _DoData(operation);
    case Kind::kFlushFile:
      if (flushes) _FlushFile(_files[_byNumber.at(operation.file)]);
      return;
    case Kind::kFlushDirectory:
      if (flushes) _FlushDirectory(operation.path);
      return;
    case Kind::kFlushAll:
      if (!flushes) return;
      for (File &file : _files) _FlushFile(file);
      _sure = _now;
      _unsure.clear();
      return;
    default:
      return _DoEntry(operation);
  }
}

void SPowerCut::_DoData(SFileOperation const &operation) {
  File &file = _files[_byNumber.at(operation.file)];
  file.unsure.push_back({operation.kind == Kind::kSize, operation.offset, operation.bytes});
  _ApplyData(file.unsure.back(), file.now, Content::kAll);
  file.nodes.clear();
}

void SPowerCut::_DoEntry(SFileOperation const &operation) {
  EntryChange change{operation.kind, operation.path, operation.target, 0};
  if (operation.kind == Kind::kCreate || operation.kind == Kind::kUnnamed) {
    _byNumber[operation.file] = _files.size();
    _files.push_back({"", "", 0660, {}, {}});
    if (operation.kind == Kind::kUnnamed) return;
  }
  if (operation.kind == Kind::kCreate || operation.kind == Kind::kLink) change.file = _byNumber.at(operation.file);
  if (operation.kind == Kind::kRename) change.file = _now.files.at(operation.path);
  _Apply(change, _now);
  _unsure.push_back(std::move(change));
}

void SPowerCut::_Apply(EntryChange const &change, Names &names) {
  switch (change.kind) {
    case Kind::kCreate:
    case Kind::kLink:
      names.files[change.path] = change.file;
      break;
    case Kind::kRename:
      names.files.erase(change.path);
      names.files[change.target] = change.file;
      break;
    case Kind::kUnlink:
      names.files.erase(change.path);
      break;
    case Kind::kMkdir:
      names.directories.insert(change.path);
      break;
    default:
      names.directories.erase(change.path);
      break;
  }
}

void SPowerCut::_FlushFile(File &file) {
  if (file.unsure.empty()) return;
  file.sure = file.now;
  file.unsure.clear();
  file.nodes.clear();
}

// What was done to an entry before something that is sure now is over as well: a rename out of a directory takes with
// it how the name came there.
void SPowerCut::_FlushDirectory(std::string const &directory) {
  std::set<std::string> settled;
  std::vector<bool> isSure(_unsure.size());
  for (size_t i = _unsure.size(); i-- > 0;) {
    EntryChange const &change = _unsure[i];
    bool const isRename = change.kind == Kind::kRename;
    isSure[i] = ParentOf(change.path) == directory || (isRename && ParentOf(change.target) == directory) ||
                settled.contains(change.path) || (isRename && settled.contains(change.target));
    if (!isSure[i]) continue;
    settled.insert(change.path);
    if (isRename) settled.insert(change.target);
  }
  std::vector<EntryChange> left;
  for (size_t i = 0; i < _unsure.size(); ++i) {
    if (isSure[i])
      _Apply(_unsure[i], _sure);
    else
      left.push_back(std::move(_unsure[i]));
  }
  _unsure = std::move(left);
}

// One change of a file's content, as far as it reached the disk: space that is new and was not written reads as zeros.
void SPowerCut::_ApplyData(Change const &change, std::string &bytes, Content content) {
  if (change.isSize) return bytes.resize(change.offset, '\0');
  size_t const end = change.offset + change.bytes.size();
  if (end > bytes.size()) bytes.resize(end, '\0');
  if (content == Content::kZeros) return;
  size_t length = change.bytes.size();
  if (content == Content::kTorn512 || content == Content::kTorn4096) {
    size_t const unit = content == Content::kTorn512 ? 512 : 4096;
    length = std::min(length, (length / unit + 1) / 2 * unit);
  }
  std::copy_n(change.bytes.begin(), length, bytes.begin() + static_cast<long>(change.offset));
}

std::shared_ptr<SDiskImage::Node const> SPowerCut::_NodeOf(size_t index, Content content) {
  File &file = _files[index];
  if (content == Content::kMixed) content = static_cast<Content>((index * 2654435761U ^ _mix) / 7 % 5);
  if (file.unsure.empty()) content = Content::kAll;
  auto &node = file.nodes[content];
  if (node != nullptr) return node;
  std::string bytes = content == Content::kAll ? file.now : file.sure;
  if (content != Content::kAll && content != Content::kNone)
    for (Change const &change : file.unsure) _ApplyData(change, bytes, content);
  return node = std::make_shared<SDiskImage::Node const>(std::move(bytes), file.mode);
}

SDiskImage SPowerCut::_Image(Names const &names, Content content) {
  SDiskImage image;
  for (std::string const &directory : names.directories) {  // parents come first
    std::string const parent = ParentOf(directory);
    if (parent.empty() || image.directories.contains(parent)) image.directories.insert(directory);
  }
  for (auto const &[path, index] : names.files) {
    std::string const parent = ParentOf(path);
    if (parent.empty() || image.directories.contains(parent)) image.files[path] = _NodeOf(index, content);
  }
  return image;
}

bool SPowerCut::_Tell(Names const &names, Content content, std::uint64_t notes, bool strictOnly, Visit const &visit) {
  SDiskImage const image = _Image(names, content);
  size_t hash = image.Hash();
  Mix(hash, notes);
  if (!_seen.insert(hash).second || _seen.size() % _stride != 0) return true;
  ++_states;
  if (strictOnly) ++_strictStates;
  return visit(image, notes);
}

bool SPowerCut::_TellOrdered(std::uint64_t notes, Visit const &visit) {
  for (Content const content : {Content::kAll, Content::kNone, Content::kZeros, Content::kTorn512, Content::kTorn4096})
    if (!_Tell(_now, content, notes, false, visit)) return false;
  return true;
}

bool SPowerCut::_TellStrict(Effort const &effort, std::uint64_t notes, Visit const &visit) {
  size_t const count = _unsure.size();
  std::vector<bool> choice(count, true);
  if (count <= effort.wholeChoice) {
    for (size_t bits = 0; bits < size_t{1} << count; ++bits) {
      for (size_t i = 0; i < count; ++i) choice[i] = (bits >> i & 1) != 0;
      if (!_TellChoice(choice, notes, true, visit)) return false;
    }
    return true;
  }
  for (bool const survives : {false, true})
    for (size_t i = 0; i < count; ++i) {
      choice.assign(count, !survives);
      choice[i] = survives;
      if (!_TellChoice(choice, notes, !survives, visit)) return false;
    }
  for (size_t n = 0; n < effort.randomChoices; ++n) {
    for (size_t i = 0; i < count; ++i) choice[i] = (_random() & 1) != 0;
    if (!_TellChoice(choice, notes, false, visit)) return false;
  }
  return true;
}

bool SPowerCut::_TellChoice(std::vector<bool> const &choice, std::uint64_t notes, bool everyContent,
                            Visit const &visit) {
  Names names = _sure;
  for (size_t i = 0; i < choice.size(); ++i)
    if (choice[i]) _Apply(_unsure[i], names);
  std::vector<Content> contents = {Content::kAll, Content::kNone};
  if (everyContent) contents.insert(contents.end(), {Content::kZeros, Content::kTorn512, Content::kTorn4096});
  for (int i = 0; i < 2; ++i) contents.push_back(Content::kMixed);
  for (Content const content : contents) {
    if (content == Content::kMixed) _mix = _random();
    if (!_Tell(names, content, notes, true, visit)) return false;
  }
  return true;
}
