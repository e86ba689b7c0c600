// tests/crash/site.h - an installation that things happen to: its tree, its modules run in this process, its mail.
#pragma once
#include <functional>
#include <string>
#include <vector>

#include "tests/crash/calls.h"
#include "tests/crash/disk.h"

// What a message leads to for one recipient.
struct SFate {
  enum class Kind {
    kStored,    // stands in the mailbox of the account
    kSent,      // waits for the delivery to another host, with its files
    kReported,  // an error record or a report names the recipient, or a person has to look at it
    kHeld,      // waits for a person, with its files
    kArchived,  // as kSent, but a copy that cannot be written does not hold the message up
  };
  Kind kind;
  std::string whom;  // account, or address
};

struct SMail {
  std::string subject;  // no other mail of the scenario has it
  std::string sender;
  std::vector<std::string> recipients;
  std::vector<SFate> fates;
  size_t size = 400;  // bytes of the body, about

  std::string Header() const;
  std::string Body() const;
};

class Site;

// A short story, told in steps. Each step is one process; it may be ended anywhere.
struct SScenario {
  using Step = std::function<void(Site &)>;
  char const *name;
  std::vector<SMail> mails;      // success number n is the acceptance of mail n
  Step prepare = [](Site &) {};  // settings and accounts, before the story begins
  std::vector<Step> steps = {};
  Step mend = [](Site &) {};  // what kept mail waiting ends: in front of the last runs
  std::function<void(Site &, std::uint64_t notes)> check = [](Site &, std::uint64_t) {};  // says what is wrong
};

std::vector<SScenario> const &AllScenarios();

class Site {
public:
  // A directory of its own in memory, or where BRENTHAVEN_CRASH_DIR says.
  explicit Site(SCallBoard &board);
  Site(Site const &) = delete;
  ~Site();

  std::string const &Root() const { return _root; }
  SCallBoard &Board() const { return _board; }
  // A fresh installation with the accounts ann, bob and cleo, as the administrator's command makes it.
  SDiskImage Install();

  // What follows runs in a child process.
  void Enter() const;                     // the environment of the installation
  static bool Submit(SMail const &mail);  // takes it into the spool; true once it is accepted
  void Round() const;                     // each module for each file in control/, once
  void Walk() const;                      // each module walks its queue
  void Drain() const;                     // rounds and walks until nothing moves any more
  void Problem(std::string const &text) const { _board.Say(text); }

  // The administrator's command on this installation; aborts when it does not end with 0.
  void Command(std::vector<std::string> const &words) const;
  static void Set(char const *module, char const *section, char const *key, std::vector<std::string> const &values);
  static void SetAccount(char const *uid, char const *attribute, std::vector<std::string> const &values);
  static std::vector<std::string> const &Modules();

private:
  std::vector<std::string> _Waiting() const;  // files in control/ for one of the modules

  SCallBoard &_board;
  std::string _top, _root;
};
