// SMTP-Router: the executable of the module of that name.
#include "brenthaven/router/smtprouter.h"
#include "brenthaven/spool/serve.h"

namespace {

// The router as a small server of requests: whether a directory is asked, and which one, stands in its settings.
class Router : public SSMTPRouterModule {
public:
  using SSMTPRouterModule::ProcessRequest;
  void ProcessRequest(SRequest &request) override {
    Sdbfile settings(GetModuleName(), 0, kProductWord);
    auto const setting = [&, open = settings.Open("/Directory", 0)](char const *key) {
      return open != 0 ? settings.Get(key).Get(0) : SString();
    };
    SSMTPRouterModule::ProcessRequest(request, setting("Use") == "yes", setting("Host"), setting("Host2"),
                                      setting("Port"), setting("Base"));
  }
};

}  // namespace

int main(int argc, char **argv) { return RunModule<Router>(argc, argv); }
