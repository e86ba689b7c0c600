// List-Manager: the executable of the module of that name.
#include "brenthaven/listmanager/listmanager.h"
#include "brenthaven/spool/serve.h"

int main(int argc, char **argv) { return RunModule<SListManagerModule>(argc, argv); }
