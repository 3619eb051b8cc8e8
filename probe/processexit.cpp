// The single exit path of the daemon; the long-lived objects join the teardown
// sequence here as they are created at start-up.
#include "probe/processexit.h"

#include <cstdlib>

void processExit(int code) { std::exit(code); }
