// MetricsPage: the daemon's readings and counters in the Prometheus text exposition format
// (version 0.0.4), for `GET /metrics` on the control port. Written by hand like the XML
// replies: no client library.
#pragma once

#include <ctime>
#include <string>

class MetricsPage {
public:
    static constexpr const char* CONTENT_TYPE = "text/plain; version=0.0.4; charset=utf-8";

    // Everything the process-wide objects hold now; readings of the newest sample only once
    // there is one (an absent series is honest where a 0 would read as "fully busy").
    static std::string render(std::time_t startedAt);
};
