// The host registry: the list of subscribed hosts. At the end of every load-tool run the
// child manager hands it the run's average idle so each host can decide whether its load
// moved enough for an extra packet.
#pragma once

#include "probe/host.h"

#include <memory>
#include <vector>

class HostListMgr {
public:
    HostListMgr() = delete;

    using HostList = std::vector<std::unique_ptr<Host>>;

    static void percentChangeCheck(unsigned int idle);
    static HostList& getHostList() { return hostList; }

private:
    static HostList hostList; // in order of addition; owns the hosts
};
