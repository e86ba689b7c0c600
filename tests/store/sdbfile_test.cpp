#include "tests/support/scratch.h"
