// brenthaven list members, subscribe, unsubscribe, import-members.
#include <sysexits.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>

#include "brenthaven/lists/slistactions.h"
#include "brenthaven/spool/accept.h"
#include "command/listcommand.h"

namespace {

constexpr size_t kBatch = 500;  // addresses under one lock, which holds off all who write accounts

struct Line {
  std::string address;
  std::string where;  // "list.txt:17: " in front of what is said about it
};

// The addresses of the command line and of the file. False after a Fail.
bool ReadAddresses(Command &command, ListOptions const &options, std::vector<Line> &lines) {
  for (std::string const &word : options.words) lines.push_back({word, ""});
  if (options.file.empty()) {
    if (lines.empty()) Fail(command, EX_USAGE, "no address: give ADDRESS or --file FILE");
    return !lines.empty();
  }
  std::ifstream file;
  bool const fromInput = options.file == "-";
  if (!fromInput) file.open(options.file, std::ios::binary);
  std::istream &in = fromInput ? std::cin : file;
  std::string text;
  for (int number = 1; std::getline(in, text); ++number) {
    constexpr char const *kBlanks = " \t\r";
    size_t const begin = text.find_first_not_of(kBlanks);
    if (begin == std::string::npos || text[begin] == '#') continue;
    lines.push_back({text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1),
                     (fromInput ? "line " : options.file + ":") + std::to_string(number) + ": "});
  }
  if (in.eof()) return true;
  Fail(command, EX_NOINPUT, "cannot read " + options.file);
  return false;
}

// One run over many addresses, and what came of it.
class MemberRun {
public:
  enum class Direction { kIn, kOut };

  MemberRun(Command &command, SList const &list, ListOptions const &options, Direction direction)
      : _command(command), _list(list), _options(options), _direction(direction) {}

  void Run(std::vector<Line> const &lines) {
    for (size_t at = 0; at < lines.size(); at += kBatch) {
      SListBatch batch(_list.GetUID());
      size_t const end = std::min(at + kBatch, lines.size());
      for (size_t i = at; i < end; ++i) _Do(lines[i], batch);
      if (!batch.Commit()) Fail(_command, EX_CANTCREAT, "cannot write the counts of " + _options.name);
      if (lines.size() > 1) ShowProgress(static_cast<int>(end), static_cast<int>(lines.size()));
    }
    _Report(lines.size());
  }

private:
  void _Do(Line const &line, SListBatch &batch) {
    SString const address(line.address);
    int result = kListInvalidAddress;
    if (IsMailAddress(address)) {
      SListActions actions(&_module, _list.GetUID(), S821Address(address));
      actions.SetDigest(_options.digest);
      actions.SetSendInfo(_options.notify, _options.notify);
      actions.SetBatch(&batch);
      result = _direction == Direction::kIn ? actions.Subscribe(1) : actions.Unsubscribe(1);
    }
    switch (result) {
      case kListSuccess:
        ++_done;
        break;
      case kListSubscriptionChanged:
        ++_changed;
        break;
      case kListAlreadySubscribed:
        ++_there;
        break;
      default:
        ++_refused;
        FailResult(_command, result, line.where + line.address);
    }
  }

  void _Report(size_t total) const {
    std::string text = std::to_string(_done) + (_direction == Direction::kIn ? " subscribed" : " unsubscribed");
    if (_changed > 0) text += ", " + std::to_string(_changed) + " changed";
    if (_there > 0) text += ", " + std::to_string(_there) + " on the list already";
    if (_refused > 0) text += ", " + std::to_string(_refused) + " of " + std::to_string(total) + " refused";
    puts(text.c_str());
  }

  Command &_command;
  SList const &_list;
  ListOptions const &_options;
  Direction _direction;
  ListCommandModule _module;
  int _done = 0;
  int _changed = 0;
  int _there = 0;
  int _refused = 0;
};

void ChangeMembers(Command &command, ListOptions const &options, MemberRun::Direction direction) {
  SList list;
  std::vector<Line> lines;
  if (EnterList(command, options.name, list) && ReadAddresses(command, options, lines))
    MemberRun(command, list, options, direction).Run(lines);
}

}  // namespace

void SubscribeMembers(Command &command, ListOptions const &options) {
  ChangeMembers(command, options, MemberRun::Direction::kIn);
}

void UnsubscribeMembers(Command &command, ListOptions const &options) {
  ChangeMembers(command, options, MemberRun::Direction::kOut);
}

void PrintMembers(Command &command, ListOptions const &options) {
  SList list;
  if (!EnterList(command, options.name, list)) return;
  SListDB accounts;
  ListJson all = ListJson::array();
  for (SString const &uid : list.GetSubscribers()) {
    SAccount member;
    if (!accounts.GetAccountInfo(uid, &member)) continue;  // gone since
    SString const address = BareAddress(S821Address(member.GetPrimaryAddress()));
    char const *const delivery = list.IsDigestSubscriber(member) ? "digest" : "immediate";
    if (options.json)
      all.push_back({{"address", ToStd(address)},
                     {"uid", ToStd(uid)},
                     {"delivery", delivery},
                     {"remote", member.IsRemoteAcct() != 0}});
    else
      printf("%s  %s\n", static_cast<char const *>(address), delivery);
  }
  if (SAccountBase::ReadFailed()) return Fail(command, EX_IOERR, "the account files cannot be read");
  if (options.json) PrintJson(all);
}
