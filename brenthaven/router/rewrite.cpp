// Header rewriting, for mail that enters here from a local account.
#include "brenthaven/router/smtprouter.h"

int SSMTPRouterModule::RewriteHeader(S821Address const &) { return 1; }
