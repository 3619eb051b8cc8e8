// The host registry's list and the end-of-run fan-out to the subscribed hosts.
#include "probe/hostlistmgr.h"

HostListMgr::HostList HostListMgr::hostList;

void HostListMgr::percentChangeCheck(unsigned int idle) {
    for (const auto& host : hostList) {
        host->percentChange(idle);
    }
}
