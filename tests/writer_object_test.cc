#include "testutil.h"
