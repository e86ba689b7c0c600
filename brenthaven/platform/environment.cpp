#include "brenthaven/platform/environment.h"

#include <stdlib.h>

void PutEnv(SString const &name, SString const &value) {
  (void)setenv(name, value, 1);  // refused for an empty name and one with "=", which no variable can have
}
