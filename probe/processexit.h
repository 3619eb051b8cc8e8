// How the daemon leaves: every path that ends the process goes through processExit,
// which tears down the long-lived objects in a fixed order, logs the closing line
// and exits with the given code.
#pragma once

[[noreturn]] void processExit(int code);
