// The hostgauge daemon's entry point: reads its configuration, rates the CPU, starts the
// load tool and runs the event loop until a signal ends it. Start-up builds the long-lived
// objects in a fixed order, each using what the steps before it built.
#include "lib/eventloop.h"
#include "lib/process.h"
#include "lib/unistring.h"
#include "probe/adminsocket.h"
#include "probe/adminstate.h"
#include "probe/allowlist.h"
#include "probe/bogomips.h"
#include "probe/bootstrap.h"
#include "probe/cache.h"
#include "probe/childmanager.h"
#include "probe/counters.h"
#include "probe/hostlistmgr.h"
#include "probe/listener.h"
#include "probe/messages.h"
#include "probe/pidfile.h"
#include "probe/processexit.h"
#include "probe/responder.h"
#include "probe/vmstatfilter.h"

#include <cstdio>
#include <ctime>
#include <string_view>

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

constexpr const char* USAGE =
    "usage: hostgauge [configdir [ncpu]]\n"
    "       hostgauge --version | --help\n"
    "Reports this server's load to load balancers. Reads configdir/hostspread.properties\n"
    "(default configdir: the current directory); ncpu (default 1) is the processor count\n"
    "that scales the CPU rating. Runs in the foreground until SIGTERM or SIGINT;\n"
    "SIGHUP reopens the log files. See hostgauge(8).\n";

// The daemon otherwise takes no options: its first argument is the configuration directory.
// These two are added so that packaging and operators can ask an installed binary what it
// is without starting it; any other first argument is still taken as the directory.
bool answeredQuery(int argc, char** argv) {
    if (argc < 2) {
        return false;
    }
    const std::string_view option = argv[1];
    if (option == "--version") {
        std::printf("hostgauge %s\n", HOSTGAUGE_VERSION);
    } else if (option == "--help") {
        std::fputs(USAGE, stdout);
    } else {
        return false;
    }
    return true;
}

// Who may connect, the agent port and the admin socket. An agent
// port that cannot be opened is logged; the control port still serves.
void buildAccess() {
    myAllowList = new AllowList(myBootstrap->getAllow(), Bootstrap::attrAllow);
    if (myBootstrap->getAgentPort() != 0) {
        myAgentListener = new Listener(eventloop, Listener::Kind::Agent);
        myAgentListener->startListener(static_cast<int>(myBootstrap->getAgentPort()));
    }
    myAdminSocket = new AdminSocket(eventloop, myBootstrap->getPidDirectory().AsUtf8() +
                                                   AdminSocket::SOCKET_NAME);
}

} // namespace

int main(int argc, char** argv) {
    if (answeredQuery(argc, argv)) {
        return 0;
    }
    the_current_process = &pr;
    myCounters.startedAt = std::time(nullptr);
    const KyUniString directory(argc > 1 ? argv[1] : ".");
    const unsigned int processors = KyUniString(argc > 2 ? argv[2] : "1").AsUint32();

    myBootstrap = new Bootstrap(directory, processors);
    LogStarted();
    // Before anything can report load, so a drain set before a restart holds from the start.
    myAdminState = new AdminState(myBootstrap->getStateDirectory());
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
    buildAccess();
    myPidFile = new PidFile(myBootstrap->getPidDirectory());
    processExit(eventloop.EnterEventLoop());
}
