// StatusPage: a self-contained HTML page for a browser (`GET /` or `GET /status` on the
// control port): the settings, the current readings, a chart of the last hour's samples in
// inline SVG, and the subscriptions. No scripts and no external files, so it works on a
// server farm's closed networks and needs no allowance in any content policy.
#pragma once

#include <cstddef>
#include <ctime>
#include <string>

class StatusPage {
public:
    // Rows beyond this are counted, not listed: the page stays small and quick to build
    // with thousands of subscriptions.
    static constexpr std::size_t MAX_ROWS = 1000;

    static std::string render(std::time_t startedAt, std::time_t now,
                              std::size_t maxRows = MAX_ROWS);
    // The one-line body of a 404 for any other path.
    static std::string notFound();
};
