// Account-Handler: the executable of the module of that name.
#include "brenthaven/handler/accounthandler.h"
#include "brenthaven/spool/serve.h"

int main(int argc, char **argv) { return RunModule<SAccountHandlerModule>(argc, argv); }
