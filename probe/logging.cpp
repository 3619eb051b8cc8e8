// The probe's logger and its log set-up. The category table is indexed by message
// number; the message functions in probe/messages.cpp rely on its order.
#include "probe/logging.h"

#include <iterator>

#include "lib/dlist.h"
#include "lib/eventloop.h"
#include "lib/stringutil.h"
#include "probe/messages.h"
#include "probe/processexit.h"

namespace {

constexpr const char* categories[] = {
    "hostgauge/initialize/error",
    "hostgauge/initialize/error",
    "hostgauge/initialize/error",
    "hostgauge/initialize/error",
    "hostgauge/initialize/error",
    "hostgauge/initialize/error",
    "hostgauge/process/info",
    "hostgauge/process/info",
    "hostgauge/process/info",
    "hostgauge/child/fatalerror",
    "hostgauge/child/fatalerror",
    "hostgauge/child/fatalerror",
    "hostgauge/child/info",
    "hostgauge/child/error",
    "hostgauge/child/info",
    "hostgauge/child/fatalerror",
    "hostgauge/child/error",
    "hostgauge/child/error",
    "hostgauge/child/error",
    "hostgauge/log/error",
    "hostgauge/attribute/error",
    "hostgauge/host/error",
    "hostgauge/host/info",
    "hostgauge/host/moreinfo",
    "hostgauge/host/error",
    "hostgauge/listener/error",
    "hostgauge/listener/error",
    "hostgauge/listener/info",
    "hostgauge/listener/fatalerror",
    "hostgauge/listener/fatalerror",
    "hostgauge/listener/error",
    "hostgauge/responder/fatalerror",
    "hostgauge/responder/moreinfo",
    "hostgauge/responder/info",
    "hostgauge/responder/error",
    "hostgauge/command/error",
    "hostgauge/command/error",
    "hostgauge/command/info",
    "hostgauge/command/info",
    "hostgauge/set_attribute/error",
    "hostgauge/set_attribute/moreinfo",
    "hostgauge/get_attribute/error",
    "hostgauge/results/moreinfo",
    // Beyond the catalogue.
    "hostgauge/initialize/error",
    "hostgauge/admin/info",
    "hostgauge/admin/error",
    "hostgauge/admin/error",
    "hostgauge/admin/error",
    "hostgauge/listener/info",
    nullptr,
};

static_assert(std::size(categories) == 50, "43 catalogue messages, 6 more and the end marker");

} // namespace

MyLogger mylog;
std::unique_ptr<Logging> bootLogger;

const char* const* MyLogger::MessageStrings() const {
    return categories;
}

Logging::Logging(KyUniString const& logDirectory, KyUniString const& logFilter)
    : logDirectory_(logDirectory), logFilter_(logFilter) {
    initLogging();
    // Records are written once per loop pass, as the loop is about to sleep, instead of one
    // write per record: a request or a datagram used to cost a write for each of its records.
    eventloop.AddBeforeWait(&KyLog::Flush);
}

// The flush hook stays with the loop: it is a plain function that is harmless without
// logs, and this object may be destroyed during static destruction, after the loop itself.
Logging::~Logging() {
    closeLogs();
}

bool Logging::initLogging() {
    initialised_ = false;
    KyLog::InitLogs(&mylog, logDirectory_);
    KyDList<KyUniString> terms;
    Split(logFilter_, terms, u',');
    initialised_ = KyLog::SetupJSFilters(terms);
    return initialised_;
}

void Logging::closeLogs() {
    KyLog::Flush();
    KyLog::HaveForked();
    initialised_ = false;
}

void Logging::reOpenLogs() {
    closeLogs();
    if (!initLogging()) {
        processExit(2);
    }
}

void Logging::flushLogs() {
    KyLog::Flush();
    if (KyLog::ReOpen() != Success) {
        LogReOpenLogFail(logDirectory_);
    }
}
