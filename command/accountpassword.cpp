// brenthaven account password, verify, method: passwords, and by what they are decided. None is ever shown, but for one
// that was just made up.
#include <sysexits.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>
#include <vector>

#include "brenthaven/accounts/accountdb.h"
#include "brenthaven/accounts/directorysettings.h"
#include "brenthaven/accounts/logonplan.h"
#include "brenthaven/accounts/storedpassword.h"
#include "brenthaven/text/base.h"
#include "command/account.h"

namespace {

struct PasswordOptions {
  std::string uid;
  bool generate = false;
  bool json = false;
};

constexpr size_t kLongestPassword = 1 << 20;  // bytes

// What is typed on a terminal does not show while one lives.
class HiddenInput {
public:
  HiddenInput() : _active(isatty(STDIN_FILENO) == 1 && tcgetattr(STDIN_FILENO, &_before) == 0) {
    if (!_active) return;
    termios hidden = _before;
    hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    fputs("Password: ", stderr);
    (void)tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden);  // then it shows
  }
  HiddenInput(HiddenInput const &) = delete;
  ~HiddenInput() {
    if (!_active) return;
    (void)tcsetattr(STDIN_FILENO, TCSAFLUSH, &_before);  // the shell sets its terminal up anew as well
    fputc('\n', stderr);
  }

private:
  termios _before{};
  bool _active;
};

// The first line of standard input, without its end; empty after a Fail.
std::string ReadPassword(Command &command) {
  HiddenInput const hidden;
  std::string password;
  for (int c; (c = std::cin.get()) != EOF && c != '\n';) {
    password += static_cast<char>(c);
    if (password.size() <= kLongestPassword) continue;
    Fail(command, EX_DATAERR, "the password is longer than " + std::to_string(kLongestPassword) + " bytes");
    return "";
  }
  if (password.empty()) Fail(command, EX_DATAERR, "no password on standard input");
  return password;
}

// 20 characters of 55, without those that are mistaken for each other: 115 bits.
std::string MakePassword() {
  constexpr std::string_view kCharacters = "abcdefghijkmnopqrstuvwxyzABCDEFGHJKLMNPQRSTUVWXY3456789";
  constexpr int kLength = 20;
  std::string password;
  while (password.size() < kLength) password += kCharacters[RandomInt(static_cast<int>(kCharacters.size()))];
  return password;
}

void SetPassword(Command &command, PasswordOptions const &options) {
  std::string const password = options.generate ? MakePassword() : ReadPassword(command);
  SAccount present;
  if (password.empty() || !EnterInstance(command) || !FindAccount(command, options.uid, present)) return;
  SAccountDBMod accounts;
  SAccountMod account;
  SStringList const values{SString(std::string_view(password))};
  if (!accounts.ModifyAccount(SString(options.uid), &account) || !account.Set(kAttrPassword, values))
    return Fail(command, EX_CANTCREAT,
                "cannot set the password of " + options.uid +
                    ": it is too long for MTA-Accounts//PasswordScheme, that names no scheme, or the files cannot be "
                    "written");
  if (options.generate) printf("%s\n", password.c_str());
}

char const *ErrorText(int error) {
  switch (error) {
    case kPasswordConfiguration:
      return "the settings are incomplete, or a text is no UTF-8";
    case kPasswordActiveDirectory:
      return "Active Directory refused it or could not be reached";
    case kPasswordDirectory:
      return "the directory refused it or failed";
    case kPasswordUserName:
      return "the user or the domain is badly formed";
    case kPasswordNoEntry:
      return "the reference directory has no such entry";
    case kPasswordUnreachable:
      return "no reference directory could be reached";
    default:
      return "it is wrong, or the method cannot be used";
  }
}

void VerifyPassword(Command &command, PasswordOptions const &options) {
  std::string const password = ReadPassword(command);
  SAccount account;
  if (password.empty() || !EnterInstance(command) || !FindAccount(command, options.uid, account)) return;
  std::string const method = LogonMethodName(PlanLogon(account, 1).method);
  if (account.IsLocked()) return Fail(command, EX_NOPERM, options.uid + " is locked");
  int error = kPasswordNoCause;
  if (account.VerifyPassword(SString(std::string_view(password)), &error, 1)) {
    printf("right, says %s\n", method.c_str());
    return;
  }
  Fail(command, EX_NOPERM, "not right, says " + method + ": " + ErrorText(error) + " (" + std::to_string(error) + ")");
}

using Lines = std::vector<std::pair<char const *, SString>>;

SString StoredForm(SString const &stored) {
  if (stored.Length() == 0) return "no password";
  SString const scheme = SchemeOfStored(stored);
  return scheme.Defined() ? scheme : SString("unknown");
}

SString BindText(SLogonPlan const &plan) {
  if (plan.authFlag == kLdapSasl) return "by a challenge (SASL)";
  if (plan.authFlag != kLdapUserPrincipal || plan.secureFlag == kLdapTls) return "simple";
  return MaySendClearText() ? "within TLS, or else by a challenge, or else in clear text"
                            : "within TLS, or else by a challenge";
}

void DescribeDirectory(SLogonPlan const &plan, Lines &lines) {
  bool const isReference = plan.method == SLogonMethod::kReferenceDirectory;
  lines.emplace_back("server", plan.url);
  if (plan.secondUrl.Length() > 0) lines.emplace_back("second server", plan.secondUrl);
  lines.emplace_back("transport", plan.secureFlag == kLdapTls ? "TLS" : "clear");
  lines.emplace_back("bind", BindText(plan));
  if (isReference) {
    lines.emplace_back("searched as", plan.readerDN.Length() > 0 ? plan.readerDN : SString("anybody"));
    lines.emplace_back("searched for", plan.filter);
  } else
    lines.emplace_back("name", plan.user);
}

Lines Describe(SAccount const &account, SLogonPlan const &plan) {
  Lines lines = {{"method", LogonMethodName(plan.method)}};
  if (account.IsLocked()) lines.emplace_back("locked", "yes");
  if (!plan.usable) return lines;
  switch (plan.method) {
    case SLogonMethod::kStoredHash:
      lines.emplace_back("form", StoredForm(plan.storedPassword));
      break;
    case SLogonMethod::kSystemLogon:
      lines.emplace_back("user", plan.user);
      break;
    default:
      DescribeDirectory(plan, lines);
  }
  return lines;
}

void ShowMethod(Command &command, PasswordOptions const &options) {
  SAccount account;
  if (!EnterInstance(command) || !FindAccount(command, options.uid, account)) return;
  SLogonPlan const plan = PlanLogon(account, 1);
  nlohmann::ordered_json json;
  for (auto const &[name, value] : Describe(account, plan)) {
    if (options.json)
      json[name] = ToStd(value);
    else
      printf("%s: %s\n", name, OneLine(ToStd(value)).c_str());
  }
  if (options.json) puts(json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace).c_str());
  if (!plan.usable)
    Fail(command, EX_CONFIG,
         std::string("no password can be right: ") +
             (plan.error == kPasswordNoCause ? "user, server or template are not set" : ErrorText(plan.error)));
}

}  // namespace

void AddAccountPassword(CLI::App &account, Command &command) {
  auto const options = std::make_shared<PasswordOptions>();
  auto const add = [&](char const *name, char const *help, auto run) {
    CLI::App *const sub = account.add_subcommand(name, help);
    sub->add_option("UID", options->uid, "the account")->required();
    sub->callback([&command, options, run] { run(command, *options); });
    return sub;
  };
  add("password", "set the password to a line of standard input", SetPassword)
      ->add_flag("--generate", options->generate, "make one up and print it");
  add("verify", "tell whether a line of standard input is the password, and who says so", VerifyPassword);
  add("method", "print by what the password is decided: method, server, name", ShowMethod)
      ->add_flag("--json", options->json, "print JSON");
}
