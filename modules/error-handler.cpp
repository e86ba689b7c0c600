// Error-Handler: the executable of the module of that name.
#include "brenthaven/errorhandler/errorhandler.h"
#include "brenthaven/spool/serve.h"

int main(int argc, char **argv) { return RunModule<SErrorHandlerModule>(argc, argv); }
