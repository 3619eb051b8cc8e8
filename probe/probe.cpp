// The hostgauge daemon's entry point: reads its configuration, rates the CPU, starts the
// load tool and runs the event loop until a signal ends it. Start-up builds the long-lived
// objects in a fixed order, each using what the steps before it built.
#include "lib/eventloop.h"
#include "lib/process.h"
#include "lib/unistring.h"
#include "probe/bogomips.h"
#include "probe/bootstrap.h"
#include "probe/cache.h"
#include "probe/childmanager.h"
#include "probe/hostlistmgr.h"
#include "probe/listener.h"
#include "probe/messages.h"
#include "probe/pidfile.h"
#include "probe/processexit.h"
#include "probe/responder.h"
#include "probe/vmstatfilter.h"

namespace {

constexpr int EXIT_UNKNOWN_FILTER = 4;
constexpr int EXIT_NO_LISTENER = 1;

// Everything that measures and reports load: the rating, the cache, the responder, the
// filter, the host registry and the tool's manager.
void buildMeasurement() {
    myBogomips = new Bogomips(static_cast<int>(myBootstrap->getNumProcessors()),
                              myBootstrap->getMultiProcFactor());
    myCache = new Cache(myBootstrap->getMinCacheSize(), myBootstrap->getMaxVirtualMem(),
                        myBootstrap->getMaxPhysMem());
    myResponder = new Responder();
    myFilter = BaseFilter::createFilter(myBootstrap->getFilter(), myBootstrap->getMaxVirtualMem(),
                                        myBootstrap->getMaxPhysMem());
    if (myFilter == nullptr) {
        processExit(EXIT_UNKNOWN_FILTER);
    }
    HostListMgr::init(&eventloop);
    myChildManager = new ChildManager(eventloop, myFilter);
}

} // namespace

int main(int argc, char** argv) {
    the_current_process = &pr;
    const KyUniString directory(argc > 1 ? argv[1] : ".");
    const unsigned int processors = KyUniString(argc > 2 ? argv[2] : "1").AsUint32();

    myBootstrap = new Bootstrap(directory, processors);
    LogStarted();
    buildMeasurement();
    // Rated before the tool starts, so the tool's own load does not disturb the rating.
    myBogomips->calculate();
    myChildManager->forkChild();
    // Without a control port there is nothing to serve: leave at once, before any pid file
    // exists and without the closing log line.
    myListener = new Listener(eventloop);
    if (!myListener->startListener(static_cast<int>(myBootstrap->getPort()))) {
        return EXIT_NO_LISTENER;
    }
    myPidFile = new PidFile(myBootstrap->getPidDirectory());
    processExit(eventloop.EnterEventLoop());
}
