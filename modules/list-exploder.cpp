// List-Exploder: the executable of the module of that name.
#include "brenthaven/exploder/exploder.h"
#include "brenthaven/spool/serve.h"

int main(int argc, char **argv) { return RunModule<SListExploderModule>(argc, argv); }
