// The routing table: which host receives the mail for a host.
#include <utility>

#include "brenthaven/platform/files.h"
#include "brenthaven/router/smtprouter.h"
#include "brenthaven/text/base.h"

namespace {

// The expression of a pattern, in which "*" stands for any text and everything else is literal as far as a host name
// goes: "*.example.org" becomes "^.*\.example\.org$".
SString ExpressionOf(SString const &pattern) {
  SString expression = "^";
  for (char const c : pattern.View()) {
    if (c == '.')
      expression += "\\.";
    else if (c == '*')
      expression += ".*";
    else
      expression += c;
  }
  return expression + "$";
}

// Makes the compiled table: a store file with each pattern as a key, put in place whole.
void WriteFastRoutes(SString const &path, SNamedStringList const &targets) {
  SString const temporary = path + "." + ProcessIdString();
  {
    Sdbfile file(PathFromFilename(temporary), FileFromFilename(temporary), 1);
    if (!file.Open("/RoutingTable", 1)) return;
    for (SString const &pattern : targets.Keys()) {
      if (file.Set(pattern, targets.Get(pattern))) continue;
      (void)RemoveFile(temporary);  // a table with gaps would misroute; the old one stays
      return;
    }
  }
  if (!Rename(temporary, path)) (void)RemoveFile(temporary);
}

}  // namespace

void SSMTPRouterModule::LoadSMTPRewriteTable(Sdbfile &db) {
  static SPerlRegex const kLine("^(\\S+):(\\S+)$");
  bool const compiles = GetArguments().Contains("VerifyEnvironment");
  _routeTargets.Undef();
  if (_fastRoutePath.Length() > 0 && !compiles) return;
  _routePatterns.reset();
  if (!db.Open("/", 0)) return;
  SStringList const lines = db.Get("RoutingTable");
  SNamedStringList targets(1, 0);
  if (lines.Length() > 0) _routePatterns = std::make_unique<SPerlRegex[]>(static_cast<size_t>(lines.Length()));
  for (SString const &line : lines) {
    SStringList const parts = kLine.Match(line);
    if (parts.Length() == 0) continue;
    targets[parts.Get(1)] = parts.Get(2);
    SPerlRegex &slot = _routePatterns[static_cast<size_t>(_routeTargets.Length())];
    slot.Set(ExpressionOf(parts.Get(1)), "i");
    if (slot.OK()) _routeTargets.Push(parts.Get(2));
  }
  if (_fastRoutePath.Length() > 0) WriteFastRoutes(_fastRoutePath, targets);
}

SString SSMTPRouterModule::RewriteSMTPAddrs(SString host) {
  SString target;
  if (!_FindRoute(host, target) || target == "*") return host;
  return target[0] == '*' ? host + std::as_const(target).Segment(1, target.Length() - 1) : target;
}

bool SSMTPRouterModule::_FindRoute(SString const &host, SString &target) {
  if (_fastRoutePath.Length() > 0) {
    if (!_fastRoutes) {
      _fastRoutes = std::make_unique<Sdbfile>(PathFromFilename(_fastRoutePath), FileFromFilename(_fastRoutePath), 0);
      (void)_fastRoutes->Open("/RoutingTable", 0);  // without it every host stays as it is
    }
    target = _fastRoutes->Get(host).Get(0);
    return target.Length() > 0;
  }
  for (int i = 0; i < _routeTargets.Length(); ++i) {
    if (!host.HasMatch(_routePatterns[static_cast<size_t>(i)])) continue;
    target = _routeTargets.Get(i);
    return true;
  }
  return false;
}
