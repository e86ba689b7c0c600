// Mailbox-Deliver: the executable of the module of that name.
#include "brenthaven/mailbox/mailboxdeliver.h"
#include "brenthaven/spool/serve.h"

int main(int argc, char **argv) { return RunModule<SMailboxDeliverModule>(argc, argv); }
