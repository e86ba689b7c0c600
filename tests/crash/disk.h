// tests/crash/disk.h - what a disk can hold: trees of files as values, and the trees that a power cut may leave.
#pragma once
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "tests/crash/calls.h"

// A directory tree as a value. Paths are relative to its top; two paths with one node are hard links.
struct SDiskImage {
  struct Node {
    Node(std::string content, mode_t permissions);
    std::string bytes;
    mode_t mode;
    size_t hash;  // of the bytes
  };

  static SDiskImage Take(std::string const &top);
  // Replaces what is below top by this tree. Aborts when it cannot.
  void Put(std::string const &top) const;
  size_t Hash() const;

  std::set<std::string> directories;  // parents before children
  std::map<std::string, std::shared_ptr<Node const>> files;
};

// What the disk may hold after a power cut, by the operations on it since a tree that was there for sure.
//
// Sure is a file's content once it was flushed, and an entry of a directory once the directory was; syncfs makes all
// sure. Of the rest two models say what may be there:
//   ordered: the operations on directories up to any one of them, as on a file system with a journal;
//   strict: any choice of them, each for itself; a rename is one operation and never loses both names.
// In both the content of a file that was not flushed may be there in full, not at all, as zeros, or in part.
class SPowerCut {
public:
  struct Effort {
    size_t wholeChoice = 4;        // up to so many unsure entries all choices are tried
    size_t randomChoices = 12;     // above it: each alone missing, each alone there, and so many at random
    size_t mostStates = SIZE_MAX;  // of more, one in so many is told of
    unsigned seed = 1;
    static constexpr long kNone = -1;
    // Index of a flushing operation that is taken as if it had not been called. Told of are the trees that only this
    // makes possible.
    long withoutFlush = kNone;
  };
  // Told of each distinct tree, with the bits of the successes that had been reported by then. False ends it all.
  using Visit = std::function<bool(SDiskImage const &tree, std::uint64_t notes)>;

  SPowerCut(SDiskImage const &before, std::vector<SFileOperation> operations);

  // Tells of the trees that are possible at any moment. False when the visitor ended it.
  bool Enumerate(Effort const &effort, Visit const &visit);
  // Trees told of so far that only the strict model allows, and all.
  long StrictStates() const { return _strictStates; }
  long States() const { return _states; }
  // An operation in words; and the one behind which the power went in the tree that was told of last.
  std::string Described(size_t index) const;
  std::string Where() const { return "behind " + Described(_at); }

private:
  enum class Content { kAll, kNone, kZeros, kTorn512, kTorn4096, kMixed };  // kMixed: each file in its own way
  struct Change {
    bool isSize;
    std::uint64_t offset;
    std::string bytes;
  };
  struct File {
    std::string now, sure;
    mode_t mode;
    std::vector<Change> unsure;
    std::map<Content, std::shared_ptr<SDiskImage::Node const>> nodes;  // made so far of what it may hold now
  };
  struct EntryChange {
    SFileOperation::Kind kind;
    std::string path, target;
    size_t file;
  };
  struct Names {
    std::set<std::string> directories;
    std::map<std::string, size_t> files;
  };

  void _Reset();
  void _Do(SFileOperation const &operation, bool flushes);
  void _DoData(SFileOperation const &operation);
  void _DoEntry(SFileOperation const &operation);
  void _FlushDirectory(std::string const &directory);
  void _FlushFile(File &file);
  static void _Apply(EntryChange const &change, Names &names);
  static void _ApplyData(Change const &change, std::string &bytes, Content content);
  std::shared_ptr<SDiskImage::Node const> _NodeOf(size_t index, Content content);
  SDiskImage _Image(Names const &names, Content content);
  bool _Enumerate(Effort const &effort, Visit const &visit);
  bool _Tell(Names const &names, Content content, std::uint64_t notes, bool strictOnly, Visit const &visit);
  bool _TellOrdered(std::uint64_t notes, Visit const &visit);
  bool _TellStrict(Effort const &effort, std::uint64_t notes, Visit const &visit);
  bool _TellChoice(std::vector<bool> const &choice, std::uint64_t notes, bool everyContent, Visit const &visit);
  std::uint64_t _NotesBeforeNextFlush(size_t from, std::uint64_t notes, Effort const &effort) const;

  SDiskImage _before;
  std::vector<SFileOperation> _operations;
  std::vector<File> _files;
  std::map<std::uint32_t, size_t> _byNumber;
  Names _now, _sure;
  std::vector<EntryChange> _unsure;
  std::unordered_set<size_t> _seen;            // hashes of trees
  std::unordered_set<size_t> _withAllFlushes;  // those that are possible although no flush was left out
  long _states = 0;
  long _strictStates = 0;
  size_t _at = 0;      // the operation behind which the power goes
  size_t _stride = 1;  // of so many distinct trees one is told of
  std::mt19937 _random;
  size_t _mix = 0;  // which way each file goes in kMixed
};
