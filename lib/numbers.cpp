// KyStatus and KyScalar are header-only; this unit anchors them in the library.
#include "lib/numbers.h"

static_assert(sizeof(KyStatus) == 1, "a status is one byte");
static_assert(KyScalar<int>(-3) == -3);
