// The process-wide counters, zero-initialised before main runs.
#include "probe/counters.h"

Counters myCounters;
