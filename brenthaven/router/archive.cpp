// Archiving: copies of a message to a mail host of the operator's choice, by sender and recipient.
#include "brenthaven/router/smtprouter.h"

void SSMTPRouterModule::CreateArchiveToCandidate(SNamedStringList &) {}
