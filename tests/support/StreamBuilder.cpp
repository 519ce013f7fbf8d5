#include "tests/support/StreamBuilder.h"
