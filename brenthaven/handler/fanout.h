// brenthaven/handler/fanout.h - the fan-out: one control for "SMTP-Deliver" a remote host.
//
// Copies of a message are made in batches. Until a batch is committed its copies are known to nobody and can be taken
// back. Only then are they released: to the dispatcher or, for a host in QueueDomains of the environment, into the
// deferred directory of the delivery module that its walks serve.
#pragma once
#include <functional>
#include <vector>

#include "brenthaven/spool/module.h"
#include "brenthaven/text/named.h"

// How copies for an archive differ from the mail itself.
struct SArchiveMark {
  SString sender;  // their envelope sender, as User-From: has it
  SString field;   // field that their header gets, with its colon; empty: none

  // By the settings Mail-From, Archive-Header-Enabled and Archive-Header in "/Config" of a module.
  static SArchiveMark Of(SString const &module);
};
// Whether a text can name an archive's host: it is not empty and holds no blank, line end or slash.
bool IsArchiveTarget(SString const &target);
// An archive's host as a key of the fan-out, "host#port"; one that says no port gets 25. What stands behind the first
// "#" is the port: "host#" has none, and becomes "host##25", which no host bears.
SString ArchiveTarget(SString const &target);

// The control of a module without the recipients that it knows of, for another module.
SControl CopyWithoutRecipients(SControl const &own, char const *function);

class SFanOut {
public:
  static constexpr int kBatch = 20;  // most copies between two commits

  enum class Result { kDone, kNoRoom, kFailed };
  // Records the entries of a batch that stands on disk but is not yet released. False takes the batch back.
  using Commit = std::function<bool(SStringList const &entries)>;

  // For the module's current control. hosts is host to entries ("SMTP <a@host>"); a key with a blank is a source route
  // and gets an empty Host-To:. Both are borrowed.
  SFanOut(SModule &module, SNamedStringList &hosts);
  SFanOut(SFanOut const &) = delete;
  SFanOut &operator=(SFanOut const &) = delete;

  void MarkAsArchive(SArchiveMark const &mark) {
    _mark = mark;
    _isArchive = true;
  }
  // Makes, commits and releases all batches. Keys that are done leave the table: after another result than kDone it
  // holds those that are not.
  Result Write(Commit const &commit);

private:
  struct Copy {
    SControl control;
    SString key;
  };
  Result _WriteBatch(SStringList const &keys);
  bool _WriteCopy(SString const &key);
  bool _MarkHeader(SControl &copy) const;
  SStringList _BatchEntries() const;
  void _TakeBack();
  void _Release();
  bool _DeferToQueue(SControl &copy, SString const &host, int buckets);

  SModule &_module;
  SNamedStringList &_hosts;
  SControl _template;
  SNamedValue _buckets;
  double _size;  // of one copy, by estimate
  SArchiveMark _mark;
  bool _isArchive = false;
  std::vector<Copy> _batch;
};
