// The single exit path of the daemon: the long-lived objects that hold outside resources
// (the load-tool child, the pid file) go first, then the configuration and measurement
// objects, and the closing line is logged last, through a log set-up that outlives them.
#include "probe/processexit.h"

#include <cstdlib>

#include "lib/logging.h"
#include "probe/adminsocket.h"
#include "probe/bogomips.h"
#include "probe/bootstrap.h"
#include "probe/childmanager.h"
#include "probe/messages.h"
#include "probe/pidfile.h"
#include "probe/vmstatfilter.h"

namespace {

// Start-up may stop half-way, so every pointer may still be null; nulling it keeps a
// later look at it from reaching a freed object.
template <typename T>
void release(T*& object) {
    delete object;
    object = nullptr;
}

} // namespace

void processExit(int code) {
    release(myChildManager);
    release(myPidFile);
    release(myAdminSocket); // removes the socket file
    release(myBootstrap);
    release(myBogomips);
    release(myFilter);
    LogStopped(code);
    // The records of the last loop pass and of the shutdown are still buffered; they are
    // written before exit runs the static destructors.
    KyLog::Flush();
    std::exit(code);
}
