#include "tests/crash/judge.h"

#include <algorithm>
#include <cctype>
#include <sstream>

namespace {

constexpr char kControlSuffix[] = "-Control";
constexpr size_t kShown = 1500;  // bytes of a stranded file that are told

bool Contains(std::string const &text, std::string const &part) { return text.find(part) != std::string::npos; }

std::string BytesOf(SDiskImage const &tree, std::string const &path) {
  auto const found = tree.files.find(path);
  return found == tree.files.end() ? std::string() : found->second->bytes;
}

std::vector<std::string> Parts(std::string const &path) {
  std::vector<std::string> parts;
  std::istringstream stream(path);
  for (std::string part; std::getline(stream, part, '/');) parts.push_back(part);
  return parts;
}

// The header of a whole message, with the blank line's front.
std::string HeaderOf(std::string const &message) {
  size_t const end = message.find("\r\n\r\n");
  return end == std::string::npos ? message : message.substr(0, end + 2);
}

bool IsMail(SMail const &mail, std::string const &header) {
  return Contains("\r\n" + header, "\r\nSubject: " + mail.subject + "\r\n");
}

bool IsWhole(SMail const &mail, std::string const &header, std::string const &body) {
  return IsMail(mail, header) && Contains(header, "\r\nX-Last: " + mail.subject + "\r\n") && body == mail.Body();
}

// One file of the spool that says what is to be done with a message.
struct Control {
  std::string place;  // its directory
  std::string function, text, header, body;
};

class Judgement {
public:
  Judgement(SDiskImage const &tree, SScenario const &scenario, bool callsFailed)
      : _tree(tree), _scenario(scenario), _callsFailed(callsFailed) {
    for (auto const &[path, node] : tree.files) _Sort(path, node->bytes);
  }

  void JudgeMail(SMail const &mail) {
    for (SFate const &fate : mail.fates) {
      long const found = _Count(mail, fate);
      if (found > 1) verdict.duplicates += found - 1;
      if (found > 0) continue;
      // A message that may go on in one way or be held may also come back to its sender.
      if (fate.kind == SFate::Kind::kHeld && _IsReported(mail.subject)) continue;
      if (_callsFailed && (fate.kind == SFate::Kind::kArchived || _IsReported(fate.whom) || _IsReported(mail.subject)))
        continue;
      ++verdict.lost;
      _Tell("lost: " + mail.subject + " for " + fate.whom);
    }
  }
  void JudgeRest() {
    for (auto const &[path, node] : _tree.files) {
      // The next backup takes away what an earlier one has left half done.
      bool const isBackup = path.starts_with("config/BTAccounts.");
      if (!isBackup && (path.ends_with(".temp") || path.ends_with(".new"))) _Strand(path);
      if (path.starts_with("mailboxes/")) _JudgeSize(path, node->bytes);
    }
    for (auto const &[path, control] : _controls) {
      bool const isOurs = std::ranges::find(Site::Modules(), control.function) != Site::Modules().end();
      if (control.place == "control" && (isOurs || control.function.empty())) _Strand(path);
      if (control.place.starts_with("deferred/") && isOurs && !_IsKept(control.place)) _Strand(path);
      if (control.function == "SMTP-Deliver" && (control.header.empty() || control.body.empty())) _Part(path);
      _JudgeWords(path, control.text);
    }
  }
  void Tell(std::string const &line) {
    ++verdict.wrong;
    _Tell(line);
  }

  SVerdict verdict;

private:
  void _Sort(std::string const &path, std::string const &bytes) {
    std::vector<std::string> const parts = Parts(path);
    if (parts.size() == 5 && parts[0] == "mailboxes" && parts[3] == "in") {
      if (std::isdigit(static_cast<unsigned char>(parts[4][0])) != 0) _SortStored(path, parts[2], bytes);
    } else if (path.ends_with(kControlSuffix) && !path.starts_with("lost/")) {
      Control control{path.substr(0, path.rfind('/')), "", bytes, "", ""};
      std::string name = parts.back();
      name.resize(name.size() - sizeof kControlSuffix + 1);
      std::istringstream lines(bytes);
      for (std::string line; std::getline(lines, line) && control.function.empty();)
        if (line.starts_with("Function: ")) control.function = line.substr(10, line.find('\r') - 10);
      control.header = BytesOf(_tree, "messages/" + name + "-Header");
      control.body = BytesOf(_tree, "messages/" + name + "-Body");
      _controls.emplace_back(path, control);
    }
  }
  void _SortStored(std::string const &path, std::string const &uid, std::string const &bytes) {
    _stored.emplace_back(uid, bytes);
    std::string const header = HeaderOf(bytes);
    std::string const body = bytes.substr(std::min(bytes.size(), header.size() + 2));
    bool isWhole = Contains(bytes, "\r\n\r\n");
    for (SMail const &mail : _scenario.mails)
      if (IsMail(mail, header)) isWhole = IsWhole(mail, header, body);
    if (!isWhole) _Part(path);
  }

  long _Count(SMail const &mail, SFate const &fate) const {
    switch (fate.kind) {
      case SFate::Kind::kStored:
        return std::ranges::count_if(_stored, [&](auto const &stored) {
          return stored.first == fate.whom && IsMail(mail, HeaderOf(stored.second));
        });
      case SFate::Kind::kSent:
      case SFate::Kind::kArchived:
        return std::ranges::count_if(_controls, [&](auto const &entry) {
          Control const &control = entry.second;
          return control.function == "SMTP-Deliver" && IsWhole(mail, "\r\n" + control.header, control.body) &&
                 Contains(control.text, "\r\nChannel-To: SMTP <" + fate.whom + ">\r\n");
        });
      case SFate::Kind::kHeld:
        return _CountHeld(mail);
      default:
        return _IsReported(fate.whom) ? 1 : _CountHeld(mail);
    }
  }
  long _CountHeld(SMail const &mail) const {
    return std::ranges::count_if(_controls, [&](auto const &entry) {
      return _IsKept(entry.second.place) && IsWhole(mail, "\r\n" + entry.second.header, entry.second.body);
    });
  }
  // An error record, or a report that was sent or stored, names them.
  bool _IsReported(std::string const &whom) const {
    auto const isReport = [&](std::string const &header, std::string const &body) {
      return std::ranges::none_of(_scenario.mails, [&](SMail const &mail) { return IsMail(mail, header); }) &&
             Contains(body, whom);
    };
    for (auto const &[uid, bytes] : _stored)
      if (isReport("\r\n" + HeaderOf(bytes), bytes)) return true;
    for (auto const &[path, control] : _controls) {
      if (control.function == "Error-Handler" && Contains(control.text, whom)) return true;
      if (control.function == "SMTP-Deliver" && isReport("\r\n" + control.header, control.body)) return true;
    }
    return false;
  }

  static bool _IsKept(std::string const &place) {
    return place == "deferred/Sideline" || place == "deferred/Held" || place == "control/held";
  }
  // Nobody here who has an account is ever told to be unknown.
  void _JudgeWords(std::string const &path, std::string const &text) {
    if (!Contains(text, "(UnknownAccounts)") && !Contains(text, "(UnknownAddresses)")) return;
    for (SMail const &mail : _scenario.mails)
      for (SFate const &fate : mail.fates)
        if (fate.kind == SFate::Kind::kStored && Contains(text, "<" + fate.whom + "@example.org>"))
          Tell("called unknown: " + fate.whom + " in " + path);
  }
  // A size record is the sum of the messages beside it.
  void _JudgeSize(std::string const &path, std::string const &bytes) {
    if (!path.ends_with("/in/__size__")) return;
    std::string const folder = path.substr(0, path.rfind('/') + 1);
    size_t sum = 0;
    for (auto const &[name, node] : _tree.files)
      if (name.starts_with(folder) && std::isdigit(static_cast<unsigned char>(name[folder.size()])) != 0)
        sum += node->bytes.size();
    if (std::to_string(sum) != bytes.substr(0, bytes.find(' '))) Tell("size record " + path + " says " + bytes);
  }
  void _Strand(std::string const &path) {
    ++verdict.stranded;
    std::string bytes = BytesOf(_tree, path).substr(0, kShown);
    std::ranges::replace_if(
        bytes, [](char c) { return std::iscntrl(static_cast<unsigned char>(c)) != 0; }, ' ');
    _Tell("stranded: " + path + " (" + bytes + ")");
  }
  void _Part(std::string const &path) {
    ++verdict.partial;
    _Tell("in part: " + path);
  }
  void _Tell(std::string const &line) { verdict.what.push_back(line); }

  SDiskImage const &_tree;
  SScenario const &_scenario;
  bool _callsFailed;
  std::vector<std::pair<std::string, std::string>> _stored;  // account and message
  std::vector<std::pair<std::string, Control>> _controls;    // by path
};

}  // namespace

void SVerdict::Add(SVerdict const &other) {
  lost += other.lost;
  partial += other.partial;
  stranded += other.stranded;
  wrong += other.wrong;
  duplicates += other.duplicates;
  what.insert(what.end(), other.what.begin(), other.what.end());
}

SVerdict Judge(SDiskImage const &tree, SScenario const &scenario, std::uint64_t notes, std::string const &said,
               bool callsFailed) {
  Judgement judgement(tree, scenario, callsFailed);
  for (size_t i = 0; i < scenario.mails.size(); ++i)
    if ((notes >> i & 1) != 0) judgement.JudgeMail(scenario.mails[i]);
  judgement.JudgeRest();
  std::istringstream lines(said);
  for (std::string line; std::getline(lines, line);) judgement.Tell(line);
  return judgement.verdict;
}
