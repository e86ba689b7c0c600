#include "brenthaven/router/routetable.h"

#include <algorithm>
#include <limits>

#include "brenthaven/platform/barrier.h"
#include "brenthaven/platform/files.h"
#include "brenthaven/router/pass.h"
#include "brenthaven/router/settings.h"
#include "brenthaven/text/base.h"

namespace {

constexpr int kNoLine = std::numeric_limits<int>::max();
constexpr char kTableSection[] = "/RoutingTable";

// Parts of "pattern:target", behind the whole; empty for another text.
SStringList SplitLine(SString const &line) {
  static SPerlRegex const kLine("^(\\S+):(\\S+)$");
  return kLine.Match(line);
}

// Whether "*" is the only byte of a pattern that does not stand for itself, so that no expression is needed.
bool IsPlain(std::string_view pattern) { return pattern.find_first_of("\\^$|()[]{}+?") == std::string_view::npos; }

// "(a|b).*.example" becomes "^(a|b)\..*\.example$".
SString ExpressionOf(SString const &pattern) { return "^" + WildcardExpression(pattern) + "$"; }

// Text that every host must end in, in lower case, for an expression to be worth a try; empty where that is not easily
// told. Behind an alternative the end may belong to it alone.
std::string LiteralEnd(std::string_view pattern) {
  if (pattern.find_first_of("|\\") != std::string_view::npos) {
    int depth = 0;
    for (char const c : pattern) {
      depth += (c == '(') - (c == ')');
      if (c == '\\' || c == '[' || (c == '|' && depth <= 0)) return "";
    }
  }
  std::string_view const end = pattern.substr(pattern.find_last_of("^$|()[]{}+?*") + 1);
  return std::string(LowerCase(SString(end)).View());
}

std::vector<std::string> SplitAtStars(std::string_view pattern) {
  std::vector<std::string> pieces(1);
  for (char const c : pattern) {
    if (c == '*')
      pieces.emplace_back();
    else
      pieces.back() += c;
  }
  return pieces;
}

}  // namespace

SString SRouteLine::HostFor(SString const &host) const {
  if (target[0] != '*') return target;
  return host + target.Segment(1, target.Length() - 1);
}

SRouteTable::SRouteTable(SStringList const &lines) {
  for (SString const &line : lines) {
    SStringList const parts = SplitLine(line);
    if (parts.Length() == 0) continue;
    _lines.push_back({parts.Get(1), parts.Get(2)});
    _Place(static_cast<int>(_lines.size()) - 1);
  }
}

void SRouteTable::_Place(int line) {
  SString const &pattern = _lines[static_cast<size_t>(line)].pattern;
  if (!IsPlain(pattern.View())) {
    auto expression = std::make_unique<SPerlRegex>(ExpressionOf(pattern), "i");
    if (expression->OK()) _others.push_back({line, {LiteralEnd(pattern.View())}, std::move(expression)});
    return;
  }
  SString const lower = LowerCase(pattern);
  std::vector<std::string> pieces = SplitAtStars(lower.View());
  if (pieces.size() == 1)
    _exact.emplace(pieces[0], line);
  else if (pieces.size() == 2 && pieces[0].empty())
    _PlaceEnd(_backs, pieces[1], line);
  else if (pieces.size() == 2 && pieces[1].empty())
    _PlaceEnd(_fronts, pieces[0], line);
  else
    _others.push_back({line, std::move(pieces), nullptr});
}

void SRouteTable::_PlaceEnd(Ends &ends, std::string const &text, int line) {
  ends.places.emplace(text, line);
  ends.longest = std::max(ends.longest, text.size());
}

SRouteLine const *SRouteTable::Find(SString const &host) const {
  SString const lower = LowerCase(host);
  std::string_view const text = lower.View();
  auto const exact = _exact.find(text);
  int best = exact != _exact.end() ? exact->second : kNoLine;
  _FindEnd(_fronts, text, Side::kFront, best);
  _FindEnd(_backs, text, Side::kBack, best);
  for (Pattern const &pattern : _others) {
    if (pattern.line > best) break;
    if (pattern.Matches(text, host)) best = pattern.line;
  }
  return best != kNoLine ? &_lines[static_cast<size_t>(best)] : nullptr;
}

// Lowers best to the first line whose text is one of the ends of the host on that side.
void SRouteTable::_FindEnd(Ends const &ends, std::string_view host, Side side, int &best) {
  if (ends.places.empty()) return;
  for (size_t length = 0; length <= std::min(host.size(), ends.longest); ++length) {
    std::string_view const end = host.substr(side == Side::kFront ? 0 : host.size() - length, length);
    if (auto const found = ends.places.find(end); found != ends.places.end()) best = std::min(best, found->second);
  }
}

// The first and the last piece stand at the ends; each other one is taken where it first stands behind the one before.
bool SRouteTable::Pattern::Matches(std::string_view lowerHost, SString const &host) const {
  if (expression != nullptr) return lowerHost.ends_with(pieces.back()) && host.HasMatch(*expression) != 0;
  std::string const &front = pieces.front();
  std::string const &back = pieces.back();
  if (lowerHost.size() < front.size() + back.size() || !lowerHost.starts_with(front) || !lowerHost.ends_with(back))
    return false;
  std::string_view rest = lowerHost.substr(front.size(), lowerHost.size() - front.size() - back.size());
  for (size_t i = 1; i + 1 < pieces.size(); ++i) {
    size_t const at = rest.find(pieces[i]);
    if (at == std::string_view::npos) return false;
    rest.remove_prefix(at + pieces[i].size());
  }
  return true;
}

SNamedStringList SRouteTable::Targets() const {
  SNamedStringList targets(1, 0);
  for (SRouteLine const &line : _lines)
    if (SStringList &target = targets[line.pattern]; target.Length() == 0) target = line.target;
  return targets;
}

SStringList SRouteTable::Faults(SStringList const &lines) {
  SStringList faults;
  for (SString const &line : lines) {
    SStringList const parts = SplitLine(line);
    if (parts.Length() == 0)
      faults.Push(line + " is not of the form pattern:target");
    else if (!IsPlain(parts.Get(1).View()) && !SPerlRegex(ExpressionOf(parts.Get(1)), "i").OK())
      faults.Push(line + " has a pattern that does not compile");
  }
  return faults;
}

namespace {

// The compiled table, a store file with each pattern as a key, by its path.
class FastTable {
public:
  explicit FastTable(SString const &path)
      : _file(FileFromFilename(path)),
        _directory(SString(path.View().substr(0, path.View().size() - _file.View().size()))) {
    if (_directory.Length() == 0) _directory = "./";  // a product without a slash would name a key of the settings
  }
  Sdbfile Open(int flags) const { return Sdbfile(_directory, _file, flags); }

private:
  SString _file;
  SString _directory;
};

// The table under a path, null when there is none. It stays open for the next message of the process, which sees a
// table that is swapped in all the same.
std::shared_ptr<Sdbfile> OpenFastTable(SString const &path) {
  static SString openPath;
  static std::shared_ptr<Sdbfile> open;
  if (open == nullptr || openPath != path) open = std::make_shared<Sdbfile>(FastTable(path).Open(0));
  openPath = path;
  if (!open->Open(kTableSection, 0)) open = nullptr;
  return open;
}

bool FlushFile(SString const &path) {
  SSyncBarrier barrier;
  barrier.AddFile(path);
  return barrier.Commit() != 0;
}

bool FlushDirectoryOf(SString const &path) {
  SSyncBarrier barrier;
  barrier.AddParentOf(path);
  return barrier.Commit() != 0;
}

// Puts a compiled table in place whole, so that who reads it finds the old one or the new one. False with the old one
// as it was: one with gaps would misroute.
bool WriteFastTable(SString const &path, SNamedStringList const &targets) {
  SString const temporary = path + "." + ProcessIdString();
  (void)RemoveFile(temporary);  // left by a run that died under the same number, or a link that would lead elsewhere
  bool written;
  {
    Sdbfile file = FastTable(temporary).Open(1);
    written = file.Open(kTableSection, 1) && file.Set(targets);
  }
  if (written && FlushFile(temporary) && Rename(temporary, path)) return FlushDirectoryOf(path);
  (void)RemoveFile(temporary);
  return false;
}

}  // namespace

// The running module needs no lines where there is a compiled table, however many there are.
void SSMTPRouterModule::LoadSMTPRewriteTable(Sdbfile &db) {
  bool const compiles = GetArguments().Contains("VerifyEnvironment");
  _routes.reset();
  _fastRoutes.reset();
  _fastRoutesTried = false;
  _fastRoutesWritten = true;
  if (_fastRoutePath.Length() > 0 && !compiles) return;
  if (!db.Open("/", 0)) return;
  _routes = CompiledFrom<SRouteTable>(db.GetLong("RoutingTable"));
  if (_fastRoutePath.Length() == 0 || Sdbfile::ReadFailed()) return;  // no table of lines that could not be read
  _fastRoutesWritten = WriteFastTable(_fastRoutePath, _routes->Targets());
  if (!_fastRoutesWritten)
    LogRouterLine(_logName, "Routing table not written to " + _fastRoutePath + ": " + GetErrorString(-1));
}

SString SSMTPRouterModule::RewriteSMTPAddrs(SString host) {
  SRouteLine line;
  return _FindRoute(host, line) ? line.HostFor(host) : host;
}

bool SSMTPRouterModule::_FindRoute(SString const &host, SRouteLine &line) {
  if (_fastRoutePath.Length() > 0) return _FindFastRoute(host, line);
  SRouteLine const *const found = _routes != nullptr ? _routes->Find(host) : nullptr;
  if (found != nullptr) line = *found;
  return found != nullptr;
}

// A table that is missing or damaged routes nothing: mail goes to the host as it stands rather than wait until somebody
// has mended it. So its trouble is logged, and does not count as settings that could not be read.
bool SSMTPRouterModule::_FindFastRoute(SString const &host, SRouteLine &line) {
  bool const failedBefore = Sdbfile::ReadFailed() != 0;
  bool const isFirst = !_fastRoutesTried;
  if (isFirst) _fastRoutes = OpenFastTable(_fastRoutePath);
  _fastRoutesTried = true;
  line = {host, _fastRoutes != nullptr ? _fastRoutes->Get(host).Get(0) : SString()};
  bool const failed = !failedBefore && Sdbfile::ReadFailed() != 0;
  if (failed) Sdbfile::ClearReadFailed();
  if (failed || (isFirst && _fastRoutes == nullptr)) {
    LogRouterLine(_logName, "Compiled routing table " + _fastRoutePath + " cannot be read: hosts stay as they are");
    _fastRoutes = nullptr;
  }
  return line.target.Length() > 0;
}
