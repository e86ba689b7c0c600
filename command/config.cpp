// brenthaven config: settings, one by one or as a text that a person can keep under version control.
//
// The text that `export` writes and `import` reads has a line for each section and one for each setting:
//
//   [SMTP-Router/Config]
//   MaximumMTAHops = "35"
//   Greeting = "one item" "another\r\nof two lines"
//
// A key that is no plain word is quoted as well. In quotes, \\ \" \n \r \t and \xHH stand for one byte. Lines that are
// blank or begin with "#" say nothing.
#include <sysexits.h>

#include <cstdio>
#include <functional>
#include <iostream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>

#include "brenthaven/store/sdbfile.h"
#include "command/command.h"

namespace {

using Json = nlohmann::ordered_json;

// Passwords that can be read back lie in this module: they are copied with the instance's files, never printed.
constexpr std::string_view kSecretModule = "AuxPassword";

struct ConfigOptions {
  std::string path;
  std::vector<std::string> values;
  bool json = false;
};

struct SettingPath {
  std::string module, section, key;  // section as Sdbfile takes it, "/" for the module's own
};

bool ParsePath(Command &command, std::string const &text, SettingPath &path) {
  size_t const first = text.find('/'), last = text.rfind('/');
  if (first == std::string::npos || first == 0 || last == first || last + 1 == text.size()) {
    Fail(command, EX_USAGE, "not MODULE/SECTION/KEY (or MODULE//KEY for the module's own section): " + text);
    return false;
  }
  path = {text.substr(0, first), text.substr(first, last - first), text.substr(last + 1)};
  return true;
}

// A cursor on the section, or null after a Fail.
std::unique_ptr<Sdbfile> OpenSection(Command &command, SettingPath const &path, bool create) {
  auto store = std::make_unique<Sdbfile>(SString(path.module), create ? 1 : 0, kProductWord);
  if (store->Open(SString(path.section), create ? 1 : 0)) return store;
  if (create || Sdbfile::ReadFailed())
    Fail(command, EX_IOERR, "the settings cannot be opened");
  else
    Fail(command, EX_NOINPUT, "no such section: " + path.module + path.section);
  return nullptr;
}

void SetValue(Command &command, ConfigOptions const &options) {
  SettingPath path;
  if (!ParsePath(command, options.path, path) || !EnterInstance(command)) return;
  auto const store = OpenSection(command, path, true);
  if (store != nullptr && !store->Set(SString(path.key), ToList(options.values)))
    Fail(command, EX_IOERR, "cannot store " + options.path);
}

void GetValue(Command &command, ConfigOptions const &options) {
  SettingPath path;
  if (!ParsePath(command, options.path, path) || !EnterInstance(command)) return;
  auto const store = OpenSection(command, path, false);
  if (store == nullptr) return;
  SStringList const values = store->Get(SString(path.key));
  if (values.Length() == 0) return Fail(command, EX_NOINPUT, "not set: " + options.path);
  for (SString const &value : values) {
    fwrite(value.View().data(), 1, value.View().size(), stdout);
    putchar('\n');
  }
}

void UnsetValue(Command &command, ConfigOptions const &options) {
  SettingPath path;
  if (!ParsePath(command, options.path, path) || !EnterInstance(command)) return;
  auto const store = OpenSection(command, path, true);
  if (store != nullptr && !store->DeleteValue(SString(path.key))) Fail(command, EX_NOINPUT, "not set: " + options.path);
}

// Calls visit(module, section, key, values) for each setting at or below a section, whose path has no leading "/".
using Visit = std::function<void(std::string const &, std::string const &, SString const &, SStringList const &)>;
void WalkSection(std::string const &module, std::string const &top, Visit const &visit) {
  std::vector<std::string> open = {top};
  while (!open.empty()) {
    std::string const section = open.back();
    open.pop_back();
    Sdbfile store(SString(module), 0, kProductWord);
    if (!store.Open(SString("/" + section), 0)) continue;
    for (SString const &key : store.Values()) visit(module, section, key, store.Get(key));
    SStringList const keys = store.Keys();
    for (int i = keys.Length() - 1; i >= 0; --i)  // the last first: the stack turns them round
      open.push_back(section.empty() ? ToStd(keys.Get(i)) : section + "/" + ToStd(keys.Get(i)));
  }
}

// "" for all modules, "MODULE" or "MODULE/SECTION".
bool WalkSettings(Command &command, std::string const &where, Visit const &visit) {
  size_t const slash = where.find('/');
  std::string const module = where.substr(0, slash);
  if (module == kSecretModule) {
    Fail(command, EX_NOPERM, "passwords are not shown");
    return false;
  }
  if (!module.empty()) {
    WalkSection(module, slash == std::string::npos ? "" : where.substr(slash + 1), visit);
  } else {
    Sdbfile product("", 0, kProductWord);
    for (SString const &name : product.Keys())
      if (name.View() != kSecretModule) WalkSection(ToStd(name), "", visit);
  }
  if (!Sdbfile::ReadFailed()) return true;
  Fail(command, EX_IOERR, "the settings cannot be read");
  return false;
}

std::string Quoted(std::string_view text) {
  std::string result = "\"";
  for (char const c : text) {
    unsigned char const byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\')
      result += '\\', result += c;
    else if (c == '\n')
      result += "\\n";
    else if (c == '\r')
      result += "\\r";
    else if (c == '\t')
      result += "\\t";
    else if (byte < 0x20 || byte == 0x7F)
      result += "\\x", result += "0123456789ABCDEF"[byte >> 4], result += "0123456789ABCDEF"[byte & 15];
    else
      result += c;
  }
  return result + '"';
}

bool IsPlainWord(std::string_view text) {
  for (char const c : text)
    if (!isalnum(static_cast<unsigned char>(c)) && strchr("-_.", c) == nullptr) return false;
  return !text.empty();
}

std::string SettingLine(SString const &key, SStringList const &values) {
  std::string line = IsPlainWord(key.View()) ? ToStd(key) : Quoted(key.View());
  line += " =";
  for (SString const &value : values) line += " " + Quoted(value.View());
  return line;
}

void ListValues(Command &command, ConfigOptions const &options) {
  if (!EnterInstance(command)) return;
  Json all = Json::object();
  bool const good = WalkSettings(command, options.path,
                                 [&](auto const &module, auto const &section, auto const &key, auto const &values) {
                                   std::string const place = module + "/" + section;
                                   if (!options.json) {
                                     printf("%s/%s\n", place.c_str(), SettingLine(key, values).c_str());
                                     return;
                                   }
                                   Json &items = all[place][ToStd(key)] = Json::array();
                                   for (SString const &value : values) items.push_back(ToStd(value));
                                 });
  if (good && options.json) puts(all.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
}

void ExportValues(Command &command, ConfigOptions const &options) {
  if (!EnterInstance(command)) return;
  std::string last;
  (void)WalkSettings(command, options.path,
                     [&](auto const &module, auto const &section, auto const &key, auto const &values) {
                       std::string const place = module + "/" + section;
                       if (place != last) printf("%s[%s]\n", last.empty() ? "" : "\n", place.c_str());
                       last = place;
                       printf("%s\n", SettingLine(key, values).c_str());
                     });
}

// Takes one quoted text or plain word off the front of a line. False when there is none in good form.
bool TakeWord(std::string_view &line, std::string &word) {
  while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) line.remove_prefix(1);
  word.clear();
  if (line.empty()) return false;
  if (line.front() != '"') {
    size_t const end = line.find_first_of(" \t=");
    word = line.substr(0, end);
    line.remove_prefix(word.size());
    return IsPlainWord(word);
  }
  line.remove_prefix(1);
  while (!line.empty() && line.front() != '"') {
    char c = line.front();
    line.remove_prefix(1);
    if (c == '\\') {
      if (line.empty()) return false;
      char const escape = line.front();
      line.remove_prefix(1);
      if (escape == 'n')
        c = '\n';
      else if (escape == 'r')
        c = '\r';
      else if (escape == 't')
        c = '\t';
      else if (escape == '"' || escape == '\\')
        c = escape;
      else if (escape == 'x' && line.size() >= 2 && isxdigit(static_cast<unsigned char>(line[0])) &&
               isxdigit(static_cast<unsigned char>(line[1]))) {
        c = static_cast<char>(std::stoi(std::string(line.substr(0, 2)), nullptr, 16));
        line.remove_prefix(2);
      } else
        return false;
    }
    word += c;
  }
  if (line.empty()) return false;
  line.remove_prefix(1);
  return true;
}

struct ImportLine {
  SettingPath path;
  std::vector<std::string> values;
};

// The whole text is understood before anything is stored, so that a slip in it changes nothing.
bool ParseImport(Command &command, std::istream &in, std::vector<ImportLine> &lines) {
  std::string text, module, section;
  for (int number = 1; std::getline(in, text); ++number) {
    if (!text.empty() && text.back() == '\r') text.pop_back();
    size_t const start = text.find_first_not_of(" \t");
    if (start == std::string::npos || text[start] == '#') continue;
    std::string_view rest = std::string_view(text).substr(start);
    auto const refuse = [&](char const *why) {
      Fail(command, EX_DATAERR, "line " + std::to_string(number) + ": " + why);
      return false;
    };
    if (rest.front() == '[') {
      size_t const slash = rest.find('/'), end = rest.rfind(']');
      if (slash == std::string_view::npos || end == std::string_view::npos || end < slash || slash < 2)
        return refuse("not [MODULE/SECTION]");
      module = rest.substr(1, slash - 1);
      section = rest.substr(slash, end - slash);
      if (module == kSecretModule) return refuse("passwords are not imported");
      continue;
    }
    ImportLine line = {{module, section, ""}, {}};
    if (module.empty()) return refuse("a setting before any [MODULE/SECTION]");
    if (!TakeWord(rest, line.path.key)) return refuse("no key");
    while (!rest.empty() && (rest.front() == ' ' || rest.front() == '\t')) rest.remove_prefix(1);
    if (rest.empty() || rest.front() != '=') return refuse("no \"=\" behind the key");
    rest.remove_prefix(1);
    while (rest.find_first_not_of(" \t") != std::string_view::npos) {
      line.values.emplace_back();
      if (!TakeWord(rest, line.values.back())) return refuse("a value that is not quoted rightly");
    }
    lines.push_back(std::move(line));
  }
  return true;
}

void ImportValues(Command &command) {
  std::vector<ImportLine> lines;
  if (!EnterInstance(command) || !ParseImport(command, std::cin, lines)) return;
  for (ImportLine const &line : lines) {
    auto const store = OpenSection(command, line.path, true);
    if (store == nullptr) return;
    if (!store->Set(SString(line.path.key), ToList(line.values)))
      return Fail(command, EX_IOERR, "cannot store " + line.path.module + line.path.section + "/" + line.path.key);
  }
  printf("%zu settings stored\n", lines.size());
}

}  // namespace

void AddConfig(CLI::App &app, Command &command) {
  auto const options = std::make_shared<ConfigOptions>();
  CLI::App *const config = app.add_subcommand("config", "settings of the modules");
  config->require_subcommand(1);
  char const *const pathHelp = "MODULE/SECTION/KEY; MODULE//KEY for the module's own section";

  CLI::App *const set = config->add_subcommand("set", "store a setting");
  set->add_option("SETTING", options->path, pathHelp)->required();
  set->add_option("VALUE", options->values, "its value, or the items of its list")->required();
  set->callback([&command, options] { SetValue(command, *options); });

  CLI::App *const get = config->add_subcommand("get", "print a setting, an item a line");
  get->add_option("SETTING", options->path, pathHelp)->required();
  get->callback([&command, options] { GetValue(command, *options); });

  CLI::App *const unset = config->add_subcommand("unset", "remove a setting: its default holds again");
  unset->add_option("SETTING", options->path, pathHelp)->required();
  unset->callback([&command, options] { UnsetValue(command, *options); });

  CLI::App *const list = config->add_subcommand("list", "print settings");
  list->add_option("WHERE", options->path, "MODULE or MODULE/SECTION; all without it");
  list->add_flag("--json", options->json, "print JSON");
  list->callback([&command, options] { ListValues(command, *options); });

  CLI::App *const dump = config->add_subcommand("export", "write settings as a text that import reads");
  dump->add_option("WHERE", options->path, "MODULE or MODULE/SECTION; all without it");
  dump->callback([&command, options] { ExportValues(command, *options); });

  config->add_subcommand("import", "store the settings of a text on standard input")->callback([&command] {
    ImportValues(command);
  });
}
