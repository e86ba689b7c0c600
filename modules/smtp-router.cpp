// SMTP-Router: the executable of the module of that name.
#include "brenthaven/router/smtprouter.h"
#include "brenthaven/spool/serve.h"

int main(int argc, char **argv) { return RunModule<SSMTPRouterModule>(argc, argv); }
