// What a posting to a list costs, beside mail to as many people by name.
//
//   Road20        the rival: messages to 20 of 50 accounts each, through router, handler and mailbox module
//   List          a posting to a list of local readers: the exploder, then the mailbox module for each of its messages
//   Distribution  the exploder alone, for readers of whom each third is at one of 2,000 remote hosts
//
// All in this process, with syncing as it is by default, on an instance of its own in the temporary directory (TMPDIR).
// Items are readers served. Mailboxes are made before the clock starts, since they are made once. "MiB" is the most
// memory that this process has held so far, so the largest list comes last.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/resource.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/exploder/exploder.h"
#include "brenthaven/mailbox/mailboxdeliver.h"
#include "brenthaven/platform/environment.h"
#include "brenthaven/router/smtprouter.h"
#include "brenthaven/spool/accept.h"
#include "brenthaven/spool/keys.h"
#include "brenthaven/store/sdbfile.h"
#include "brenthaven/text/base.h"

namespace {

namespace fs = std::filesystem;

constexpr int kNamed = 20;    // recipients of a message by name
constexpr int kNamedOf = 50;  // accounts that take turns
constexpr int kRemoteHosts = 2000;
constexpr int kTextBytes = 4096;
constexpr char kHeader[] = "From: Ann <ann@example.org>\r\nTo: news@example.org\r\nSubject: Minutes\r\n";

[[noreturn]] void Stop(std::string const &why) {
  fprintf(stderr, "exploder_bench: %s\n", why.c_str());
  exit(1);
}

void Require(bool good, char const *what) {
  if (!good) Stop(std::string("cannot ") + what);
}

class Instance {
public:
  Instance() : _root((fs::temp_directory_path() / "exploder-XXXXXX").string()) {
    Require(mkdtemp(_root.data()) != nullptr, "make a directory");
    for (char const *name : {"messages", "control", "deferred", "config", "mailboxes"})
      fs::create_directory(_root + "/" + name);
    PutEnv("Brenthaven", SString(_root));
    PutEnv("MailboxDir", SString(_root) + "/mailboxes");
    PutEnv("HostName", "mail.example.org");
    PutEnv("DomainName", "example.org");
    PutEnv("FormSigKey", "secret");
    PutEnv("MaxDirectDelivery", "512");
    for (char const *module : {"SMTP-Router", "Mailbox-Deliver", "Account-Handler", "List-Exploder"})
      for (char const *section : {"/Config", "/Error-Actions"}) {
        Sdbfile settings(module, 1, kProductWord);
        Require(settings.Open(section, 1) != 0, "write settings");
      }
    Sdbfile accounts("MTA-Accounts", 1, kProductWord);
    Require(accounts.Open("/", 1) && accounts.Set("LocalMailDomains", SStringList("example.org")), "write settings");
  }
  ~Instance() {
    std::error_code ignored;  // what is left lies in a directory of its own
    fs::remove_all(_root, ignored);
  }
  Instance(Instance const &) = delete;
  Instance &operator=(Instance const &) = delete;

  // A list with that many readers; each third elsewhere, where there are remote ones. Made once.
  SString MakeList(int readers, bool hasRemote) {
    SString const uid = SString("list") + SString(readers) + (hasRemote ? "r" : "");
    if (SAccountDB().GetAccountInfo(uid, nullptr)) return uid;
    SAccountDBMod store;
    auto const set = [&store](SString const &account, std::initializer_list<std::pair<int, SString>> values) {
      SAccountMod made;
      Require(store.ModifyAccount(account, &made) != 0, "make an account");
      for (auto const &[attribute, value] : values)
        Require(made.Set(attribute, SStringList(value)) != 0, "set a value");
    };
    set(uid, {{kAttrListName, uid}, {kAttrSmtpAddress, uid + "@example.org"}, {kAttrHandlerDelivery, "List-Exploder"}});
    for (int i = 0; i < readers; ++i) {
      SString const name = uid + "-" + SString(i);
      bool const isRemote = hasRemote && i % 3 == 0;
      set(name, {{isRemote ? kAttrRemoteSmtpAddress : kAttrSmtpAddress,
                  isRemote ? name + "@host" + SString(i % kRemoteHosts) + ".example" : name + "@example.org"},
                 {kAttrSubscribedLists, uid},
                 {kAttrSubscribedListsImmediate, uid}});
      if (!isRemote) set(name, {{kAttrLocalDelivery, "Mailbox"}});
    }
    return uid;
  }
  // A posting in control/, as the account handler leaves it.
  SString PutPosting(SString const &list) {
    SListExploderModule namer;
    SString const name = namer.NewMessageID();
    SString const text(std::string_view(std::string(kTextBytes, 'x') + "\r\n"));
    SControl control(name);
    SHeader header(name);
    (SString(kHeader) + "Message-ID: <" + name + ">\r\n") >> header;
    Require(MapFileWrite(control.GetBodyFilename(), text) && header.Write(), "write a posting");
    control[kKeyFunction] = "List-Exploder";
    control[kKeyControlType] = kTypeMail;
    control[kKeyUserFrom] = "SMTP <ann@example.org>";
    control[kKeyHostFrom] = "far.example [192.0.2.7]";
    control[kKeyModuleTo] = "List-Exploder " + list;
    Require(CommitNewMessage(control) != 0, "write a posting");
    return name;
  }
  SString PutByName(int turn) {
    SListExploderModule namer;
    SAcceptance message(namer);
    message.SetSender("ann@example.org");
    for (int r = 0; r < kNamed; ++r)
      message.AddRecipient("list50-" + SString((turn * kNamed + r) % kNamedOf) + "@example.org");
    message.SetHeader(kHeader);
    std::string const text(kTextBytes, 'x');
    message.AddBody(text.data(), text.size());
    Require(message.Commit() == SAcceptResult::kOk, "write a message");
    return message.GetName();
  }
  template <class Module>
  static void Run(SString const &name) {
    Module module;
    Require(module.LoadEnv() && module.ProcessMessageName(name) == kModuleDone, "process a message");
  }
  void DeliverAll() {
    for (SString const &path : ReadDir(SString(_root) + "/control"))
      Run<SMailboxDeliverModule>(BaseName(path, kControlSuffix));
  }
  // Removes the stored copies, and with everything set what is on its way; stops unless it is that many.
  void Clear(int copies) {
    int found = 0;
    for (fs::directory_entry const &entry : fs::recursive_directory_iterator(_root + "/mailboxes"))
      if (entry.is_regular_file() && entry.path().filename().string()[0] != '_') {
        fs::remove(entry.path());
        ++found;
      }
    if (found != copies) Stop("stored " + std::to_string(found) + " copies");
    for (char const *name : {"control", "messages"}) {
      fs::remove_all(_root + "/" + name);
      fs::create_directory(_root + "/" + name);
    }
  }

private:
  std::string _root;
};

Instance &TheInstance() {
  static Instance instance;
  return instance;
}

void Road20(benchmark::State &state) {
  Instance &instance = TheInstance();
  (void)instance.MakeList(kNamedOf, false);
  PutEnv("Log", "no");
  int turn = 0;
  for (; turn < kNamedOf; ++turn) Instance::Run<SSMTPRouterModule>(instance.PutByName(turn));
  instance.Clear(kNamedOf * kNamed);
  for (auto _ : state) {
    state.PauseTiming();
    SString const name = instance.PutByName(turn++);
    state.ResumeTiming();
    Instance::Run<SSMTPRouterModule>(name);
  }
  state.SetItemsProcessed(state.iterations() * kNamed);
  instance.Clear(static_cast<int>(state.iterations()) * kNamed);
}
BENCHMARK(Road20)->Iterations(500)->UseRealTime()->Unit(benchmark::kMillisecond);

void List(benchmark::State &state) {
  Instance &instance = TheInstance();
  int const readers = static_cast<int>(state.range(0));
  SString const list = instance.MakeList(readers, false);
  auto const post = [&](SString const &name) {
    Instance::Run<SListExploderModule>(name);
    instance.DeliverAll();
  };
  post(instance.PutPosting(list));
  instance.Clear(readers);
  for (auto _ : state) {
    state.PauseTiming();
    SString const name = instance.PutPosting(list);
    state.ResumeTiming();
    post(name);
    state.PauseTiming();
    instance.Clear(readers);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * readers);
}
BENCHMARK(List)->Arg(1000)->Arg(10000)->Iterations(3)->UseRealTime()->Unit(benchmark::kMillisecond);

void Distribution(benchmark::State &state) {
  Instance &instance = TheInstance();
  int const readers = static_cast<int>(state.range(0));
  SString const list = instance.MakeList(readers, true);
  for (auto _ : state) {
    state.PauseTiming();
    SString const name = instance.PutPosting(list);
    state.ResumeTiming();
    Instance::Run<SListExploderModule>(name);
    state.PauseTiming();
    instance.Clear(0);
    state.ResumeTiming();
  }
  struct rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  state.counters["MiB"] = static_cast<double>(usage.ru_maxrss) / 1024;
  state.SetItemsProcessed(state.iterations() * readers);
}
BENCHMARK(Distribution)
    ->Arg(10000)
    ->Arg(30000)
    ->Arg(100000)
    ->Iterations(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
