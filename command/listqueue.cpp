// brenthaven list held, approve, reject, edit, stats, bounces.
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sysexits.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <numeric>

#include "brenthaven/listmanager/held.h"
#include "brenthaven/lists/slistactions.h"
#include "brenthaven/lists/sliststate.h"
#include "brenthaven/mime/linebreak.h"
#include "brenthaven/platform/descriptor.h"
#include "brenthaven/platform/sys.h"
#include "brenthaven/spool/accept.h"
#include "brenthaven/spool/header.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/text/base.h"
#include "command/listcommand.h"

namespace {

bool ReadState(Command &command, SListState &state, std::string const &name) {
  if (state.Read()) return true;
  Fail(command, EX_TEMPFAIL, "cannot read or lock the state of " + name);
  return false;
}

// The message that a posting waits as; empty, after a Fail, when it does not wait.
SString HeldMessage(Command &command, SList const &list, ListOptions const &options) {
  SListState state(list.GetUID());
  if (!ReadState(command, state, options.name)) return "";
  SString message = state.GetApproveMsgText(state.FindApproveMsg(SString(options.id)));
  if (message.Length() == 0) FailResult(command, kListMsgNotFound, options.id);
  return message;
}

SString MessagePath(Command const &command, SString const &message, char const *suffix) {
  return SString(command.root) + "/messages/" + message + suffix;
}

// A field on one line, for a terminal.
std::string FieldText(SHeader const &header, char const *key) { return OneLine(ToStd(header.Get(key).Get(0))); }

void PrintPosting(Command &command, SList const &list, ListOptions const &options) {
  SString const message = HeldMessage(command, list, options);
  if (message.Length() == 0) return;
  for (char const *suffix : {kHeaderSuffix, kBodySuffix}) {
    SString const text = MapFileRead(MessagePath(command, message, suffix));
    fwrite(text.View().data(), 1, text.View().size(), stdout);
    if (suffix == kHeaderSuffix) fputs("\r\n", stdout);
  }
}

void AddRequests(ListJson &requests, SStringList const &addresses, char const *wants) {
  for (SString const &address : addresses) requests.push_back({{"address", ToStd(address)}, {"wants", wants}});
}

ListJson DescribeHeld(SListState const &state) {
  ListJson held = {{"postings", ListJson::array()}, {"requests", ListJson::array()}};
  for (int i = 0; i < state.GetApproveMsgsCount(); ++i) {
    SHeader header(state.GetApproveMsgText(i));
    bool const readable = header.Read() != 0;
    held["postings"].push_back({{"id", ToStd(state.GetApproveMsgId(i))},
                                {"message", ToStd(state.GetApproveMsgText(i))},
                                {"from", FieldText(header, kHeaderFrom)},
                                {"date", FieldText(header, kHeaderDate)},
                                {"subject", FieldText(header, kHeaderSubject)},
                                {"readable", readable}});
  }
  AddRequests(held["requests"], state.GetSubscribeRequests(0), "subscribe");
  AddRequests(held["requests"], state.GetSubscribeRequests(1), "subscribe digest");
  AddRequests(held["requests"], state.GetUnsubscribeRequests(), "unsubscribe");
  return held;
}

std::string Text(ListJson const &json, char const *key) { return json[key].get<std::string>(); }

void DecideAll(Command &command, ListOptions const &options, bool accept) {
  SList list;
  if (!EnterList(command, options.name, list)) return;
  ListCommandModule module;
  for (std::string const &what : options.words) {
    int const result = DecideOnHeld(module, list.GetUID(), SString(what), accept);
    if (result != kListSuccess) FailResult(command, result, what);
  }
}

std::string ReadAll(std::istream &in) { return {std::istreambuf_iterator<char>(in), {}}; }

// A temporary file that an editor works on, removed at the end.
class EditedFile {
public:
  explicit EditedFile(std::string const &text) {
    char const *const directory = getenv("TMPDIR");
    _path = std::string(directory != nullptr ? directory : "/tmp") + "/brenthaven-edit-XXXXXX";
    SDescriptor const file(mkstemp(_path.data()));
    _good = file.IsOpen() && sys::WriteAll(file.Get(), text.data(), text.size()) == 0;
  }
  EditedFile(EditedFile const &) = delete;
  EditedFile &operator=(EditedFile const &) = delete;
  ~EditedFile() { (void)unlink(_path.c_str()); }

  // Runs the editor and takes back what it has left. False when either failed.
  bool Edit(std::string const &editor, std::string &text) const {
    if (!_good) return false;
    std::string const shell = editor + " '" + _path + "'";
    fflush(nullptr);
    int const status = system(shell.c_str());
    SString const result = MapFileRead(SString(_path));
    text = ToStd(result);
    struct stat info;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 && stat(_path.c_str(), &info) == 0 &&
           (result.Defined() || info.st_size == 0);
  }

private:
  std::string _path;
  bool _good;
};

// From the editor on a terminal, else from standard input. False after a Fail, or when nothing was changed.
bool NewText(Command &command, SString const &body, std::string &text) {
  if (!isatty(STDIN_FILENO)) {
    text = ReadAll(std::cin);
    if (text.empty()) Fail(command, EX_DATAERR, "no text on standard input");
    return !text.empty();
  }
  char const *editor = getenv("VISUAL");
  if (editor == nullptr) editor = getenv("EDITOR");
  if (editor == nullptr) {
    Fail(command, EX_USAGE, "no text: set EDITOR, or give it on standard input");
    return false;
  }
  std::string before = ToStd(body);
  std::erase(before, '\r');
  if (!EditedFile(before).Edit(editor, text)) {
    Fail(command, EX_OSERR, std::string("the editor failed: ") + editor);
    return false;
  }
  if (text == before) puts("nothing changed");
  return text != before;
}

SStringList LinesOf(SString const &text) {
  SStringList lines;
  SLineBreaker breaker(text, 1);
  SString line;
  while (breaker.ReadLine(line)) lines.Push(line);
  return lines;
}

// Users with a count, greatest first.
std::vector<int> UsersBy(SListState const &state, int (SListState::*count)(int) const) {
  std::vector<int> users(static_cast<size_t>(state.GetUserCount()));
  std::iota(users.begin(), users.end(), 0);
  std::erase_if(users, [&](int user) { return (state.*count)(user) == 0; });
  std::stable_sort(users.begin(), users.end(), [&](int a, int b) { return (state.*count)(a) > (state.*count)(b); });
  return users;
}

}  // namespace

void PrintHeld(Command &command, ListOptions const &options) {
  SList list;
  if (!EnterList(command, options.name, list)) return;
  if (!options.id.empty()) return PrintPosting(command, list, options);
  SListState state(list.GetUID());
  if (!ReadState(command, state, options.name)) return;
  ListJson const held = DescribeHeld(state);
  if (options.json) return PrintJson(held);
  for (ListJson const &posting : held["postings"])
    printf("%s  %s  %s\n", Text(posting, "id").c_str(), Text(posting, "from").c_str(),
           Text(posting, "subject").c_str());
  for (ListJson const &request : held["requests"])
    printf("%s  %s\n", Text(request, "address").c_str(), Text(request, "wants").c_str());
}

void ApproveHeld(Command &command, ListOptions const &options) { DecideAll(command, options, true); }

void RejectHeld(Command &command, ListOptions const &options) { DecideAll(command, options, false); }

void EditHeld(Command &command, ListOptions const &options) {
  SList list;
  if (!EnterList(command, options.name, list)) return;
  SString const message = HeldMessage(command, list, options);
  std::string text;
  if (message.Length() == 0 || !NewText(command, MapFileRead(MessagePath(command, message, kBodySuffix)), text)) return;
  ListCommandModule module;
  SListActions actions(&module, list.GetUID(), S821Address());
  int const result = actions.EditText(SString(options.id), LinesOf(SString(text)));
  if (result != kListSuccess) FailResult(command, result, options.id);
}

void PrintStats(Command &command, ListOptions const &options) {
  SList list;
  if (!EnterList(command, options.name, list)) return;
  int const subscribers = list.GetSubscriberCount();  // accounts are read before the state is locked
  SListState state(list.GetUID());
  if (!ReadState(command, state, options.name)) return;
  ListJson all = {{"subscribers", subscribers},
                  {"messages", state.GetTotalMessages()},
                  {"kbytes", state.GetTotalKbytes()},
                  {"digest_volume", state.GetDigestVolume()},
                  {"digest_number", state.GetDigestNumber()},
                  {"subscriptions", state.GetSubscriptions()},
                  {"unsubscriptions", state.GetUnsubscriptions()},
                  {"forced_unsubscriptions", state.GetForcedUnsubscriptions()}};
  if (!options.json)
    for (auto const &[key, value] : all.items()) printf("%s: %d\n", key.c_str(), value.get<int>());
  ListJson &posters = all["posters"] = ListJson::array();
  for (int const user : UsersBy(state, &SListState::GetUserTotalMessages)) {
    posters.push_back({{"address", ToStd(state.GetUser(user))},
                       {"messages", state.GetUserTotalMessages(user)},
                       {"kbytes", state.GetUserTotalKbytes(user)},
                       {"moderated", state.GetModeratedPostCount(user)}});
    if (!options.json)
      printf("%s  %d messages, %d kbytes\n", static_cast<char const *>(state.GetUser(user)),
             state.GetUserTotalMessages(user), state.GetUserTotalKbytes(user));
  }
  if (options.json) PrintJson(all);
  if (!options.clear) return;
  state.ClearStats();
  if (!state.Commit()) Fail(command, EX_CANTCREAT, "cannot write the state of " + options.name);
}

void PrintBounces(Command &command, ListOptions const &options) {
  SList list;
  if (!EnterList(command, options.name, list)) return;
  SListState state(list.GetUID());
  if (!ReadState(command, state, options.name)) return;
  std::vector<int> const users = UsersBy(state, &SListState::GetBounceCount);
  if (!options.reset.empty()) {
    auto const user = std::find_if(users.begin(), users.end(),
                                   [&](int each) { return state.GetUser(each).CompareNoCase(SString(options.reset)); });
    if (user == users.end()) return Fail(command, EX_NOUSER, "no mail to this address came back: " + options.reset);
    state.ResetBounceCount(*user);
    if (!state.Commit()) Fail(command, EX_CANTCREAT, "cannot write the state of " + options.name);
    return;
  }
  ListJson all = ListJson::array();
  for (int const user : users) {
    if (options.json)
      all.push_back({{"address", ToStd(state.GetUser(user))}, {"bounces", state.GetBounceCount(user)}});
    else
      printf("%s  %d\n", static_cast<char const *>(state.GetUser(user)), state.GetBounceCount(user));
  }
  if (options.json) PrintJson(all);
}
