// The status page, laid out for a laptop and for a phone: a grid of readings that wraps,
// a chart that scales to the width, and a table that scrolls sideways on a narrow screen.
#include "probe/statuspage.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "probe/adminstate.h"
#include "probe/bogomips.h"
#include "probe/bootstrap.h"
#include "probe/cache.h"
#include "probe/host.h"
#include "probe/hostlistmgr.h"

namespace {

constexpr const char* STYLE =
    "body{font:15px/1.45 system-ui,sans-serif;color:#1d2330;background:#f6f7f9;margin:0}"
    "main{max-width:1080px;margin:0 auto;padding:12px 14px 32px}"
    "h1{font-size:1.45em;margin:.3em 0 .1em}h2{font-size:1.1em;margin:1.4em 0 .5em}"
    ".sub{color:#5b6475;margin:0}"
    ".grid{display:grid;grid-template-columns:repeat(auto-fill,minmax(150px,1fr));gap:8px}"
    ".card{background:#fff;border:1px solid #dde1e8;border-radius:8px;padding:8px 10px}"
    ".card span{display:block;color:#5b6475;font-size:.85em}"
    ".card b{font-size:1.35em;font-weight:600}"
    ".panel{background:#fff;border:1px solid #dde1e8;border-radius:8px;padding:8px}"
    ".scroll{overflow-x:auto}svg{display:block;width:100%;max-width:860px;margin:0 "
    "auto;height:auto;font-size:13px}"
    "table{border-collapse:collapse;width:100%;font-size:.9em;background:#fff}"
    "th,td{padding:5px 8px;border-bottom:1px solid #e6e9ef;text-align:right;white-space:nowrap}"
    "th{background:#eef1f5;font-weight:600}td.l,th.l{text-align:left}"
    ".ready{color:#1a7f37}.drain,.maint{color:#b35900}.more{color:#5b6475}"
    "dl{display:grid;grid-template-columns:max-content 1fr;gap:3px 14px;margin:0}"
    "dt{color:#5b6475}dd{margin:0;overflow-wrap:anywhere}"
    // The chart shrinks to a phone's width; larger letters keep its labels readable there.
    "@media (max-width:600px){svg{font-size:22px}main{padding:8px}}";

// Plot area of the chart, in the SVG's own units.
constexpr int CHART_WIDTH = 720, CHART_HEIGHT = 262;
constexpr int PLOT_LEFT = 70, PLOT_RIGHT = 660, PLOT_TOP = 14, PLOT_BOTTOM = 200;
constexpr int HOUR = 3600, TICK_SECONDS = 600;
constexpr const char* IDLE_COLOUR = "#2563eb";
constexpr const char* MEMORY_COLOUR = "#c2410c";

std::string escaped(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += "&quot;";
            break;
        default:
            out += c;
        }
    }
    return out;
}

std::string clock(std::time_t when, const char* format) {
    std::tm local{};
    localtime_r(&when, &local);
    char text[64];
    return std::string(text, std::strftime(text, sizeof text, format, &local));
}

std::string memory(std::uint64_t kb) {
    char text[32];
    if (kb >= 1024 * 1024) {
        std::snprintf(text, sizeof text, "%.1f GiB", static_cast<double>(kb) / (1024.0 * 1024.0));
    } else {
        std::snprintf(text, sizeof text, "%.1f MiB", static_cast<double>(kb) / 1024.0);
    }
    return text;
}

std::string hostName() {
    char name[256] = {};
    ::gethostname(name, sizeof name - 1);
    return name;
}

void card(std::string& out, std::string_view label, std::string_view value,
          std::string_view cls = {}) {
    out.append("<div class=\"card\"><span>").append(label).append("</span><b");
    if (!cls.empty()) {
        out.append(" class=\"").append(cls).append("\"");
    }
    out.append(">").append(value).append("</b></div>");
}

std::string_view stateName() {
    return myAdminState ? AdminState::name(myAdminState->mode()) : "ready";
}

void writeHead(std::string& out, std::time_t startedAt, std::time_t now) {
    const std::string host = escaped(hostName());
    out.append("<!DOCTYPE html><html lang=\"en\"><head><meta charset=\"utf-8\">"
               "<meta name=\"viewport\" content=\"width=device-width,initial-scale=1\">"
               "<title>hostgauge on ")
        .append(host)
        .append("</title><style>")
        .append(STYLE)
        .append("</style></head><body><main><h1>hostgauge on ")
        .append(host)
        .append("</h1><p class=\"sub\">Version " HOSTGAUGE_VERSION " &middot; started ")
        .append(clock(startedAt, "%Y-%m-%d %H:%M:%S"))
        .append(" &middot; page made ")
        .append(clock(now, "%Y-%m-%d %H:%M:%S %Z"))
        .append("</p>");
}

void writeReadings(std::string& out) {
    out.append("<h2>Now</h2><div class=\"grid\">");
    const std::string_view state = stateName();
    card(out, "State", state, state);
    const History* history = myCache ? &myCache->getHistory() : nullptr;
    if (history == nullptr || history->size() == 0) {
        card(out, "Load samples", "none yet");
    } else {
        const HistoryEntry& newest = history->at(history->size() - 1);
        card(out, "CPU idle (newest)", std::to_string(newest.idle) + " %");
        const unsigned window = myBootstrap ? myBootstrap->getWindowSize() : 1;
        if (const auto average = myCache->getAverageOfNIdleValues(window)) {
            card(out, "CPU idle (window of " + std::to_string(window) + ")",
                 std::to_string(average->getIdle()) + " %");
        }
        card(out, "Free physical memory", memory(newest.physMemFree));
        card(out, "Free virtual memory", memory(newest.virtualMemFree));
        card(out, "Swapped in / out",
             std::to_string(newest.swappedIn) + " / " + std::to_string(newest.swappedOut));
        card(out, "Newest sample", clock(newest.time, "%H:%M:%S"));
        card(out, "Samples cached", std::to_string(myCache->getLength()));
    }
    card(out, "CPU rating", std::to_string(myBogomips ? myBogomips->getBestBogo() : 0));
    std::string subscriptions = std::to_string(HostListMgr::getHostList().size());
    if (myBootstrap != nullptr) {
        subscriptions += " of " + std::to_string(myBootstrap->getMaxHosts());
    }
    card(out, "Subscriptions", subscriptions);
    out.append("</div>");
}

int xOf(std::time_t time, std::time_t start) {
    return PLOT_LEFT + static_cast<int>((time - start) * (PLOT_RIGHT - PLOT_LEFT) / HOUR);
}

int yOf(double share) {
    return PLOT_BOTTOM - static_cast<int>(share * (PLOT_BOTTOM - PLOT_TOP) + 0.5);
}

void polyline(std::string& out, const std::vector<std::pair<int, int>>& points,
              const char* colour) {
    out.append("<polyline fill=\"none\" stroke-width=\"2\" stroke=\"").append(colour);
    out.append("\" points=\"");
    for (const auto& [x, y] : points) {
        out.append(std::to_string(x)).append(",").append(std::to_string(y)).append(" ");
    }
    out.append("\"/>");
}

void text(std::string& out, int x, int y, std::string_view anchor, std::string_view words,
          const char* colour = "#5b6475") {
    out.append("<text x=\"" + std::to_string(x) + "\" y=\"" + std::to_string(y) +
               "\" text-anchor=\"")
        .append(anchor)
        .append("\" fill=\"")
        .append(colour)
        .append("\">")
        .append(words)
        .append("</text>");
}

// The memory axis: a round step per quarter of the height, in GiB once memory runs to
// gigabytes, so the labels stay short enough for a phone.
struct MemoryScale {
    double step = 1; // per quarter, in `unit`
    bool gib = false;
    double topKb() const { return 4 * step * (gib ? 1024.0 * 1024.0 : 1024.0); }
};

MemoryScale memoryScale(std::uint32_t highestKb) {
    MemoryScale scale;
    scale.gib = highestKb >= 2u * 1024u * 1024u;
    const double quarter = highestKb / (scale.gib ? 1024.0 * 1024.0 : 1024.0) / 4;
    for (double decade = 1; scale.step < quarter; decade *= 10) {
        for (const double nice : {1.0, 1.5, 2.0, 2.5, 3.0, 4.0, 5.0, 6.0, 8.0}) {
            scale.step = nice * decade;
            if (scale.step >= quarter) {
                break;
            }
        }
    }
    return scale;
}

std::string number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", value);
    return text;
}

void gridLine(std::string& out, int x1, int x2, int y1, int y2) {
    out.append("<line x1=\"" + std::to_string(x1) + "\" x2=\"" + std::to_string(x2) + "\" y1=\"" +
               std::to_string(y1) + "\" y2=\"" + std::to_string(y2) + "\" stroke=\"#e6e9ef\"/>");
}

void writeAxes(std::string& out, std::time_t start, const MemoryScale& memory) {
    for (int step = 0; step <= 4; ++step) {
        const int y = yOf(step / 4.0);
        gridLine(out, PLOT_LEFT, PLOT_RIGHT, y, y);
        text(out, PLOT_LEFT - 6, y + 4, "end", std::to_string(step * 25) + "%", IDLE_COLOUR);
        text(out, PLOT_RIGHT + 6, y + 4, "start", number(memory.step * step), MEMORY_COLOUR);
    }
    // Ticks on the wall clock's ten minutes, so the labels read as times of day.
    for (std::time_t tick = start + (TICK_SECONDS - start % TICK_SECONDS) % TICK_SECONDS;
         tick <= start + HOUR; tick += TICK_SECONDS) {
        const int x = xOf(tick, start);
        gridLine(out, x, x, PLOT_TOP, PLOT_BOTTOM + 4);
        text(out, x, PLOT_BOTTOM + 26, "middle", clock(tick, "%H:%M"));
    }
    text(out, PLOT_LEFT, CHART_HEIGHT - 6, "start", "&#9632; CPU idle", IDLE_COLOUR);
    text(out, PLOT_RIGHT, CHART_HEIGHT - 6, "end",
         std::string("free memory, ") + (memory.gib ? "GiB" : "MiB") + " &#9632;", MEMORY_COLOUR);
}

void writeChart(std::string& out, std::time_t now) {
    out.append("<h2>Last hour</h2><div class=\"panel\">");
    const History* history = myCache ? &myCache->getHistory() : nullptr;
    out.append("<svg viewBox=\"0 0 " + std::to_string(CHART_WIDTH) + " " +
               std::to_string(CHART_HEIGHT) +
               "\" role=\"img\" aria-label=\"CPU idle and free physical memory over the last "
               "hour\">");
    const std::time_t start = now - HOUR;
    std::uint32_t highestKb = 1024; // an empty chart still has a scale
    for (std::size_t i = 0; history != nullptr && i < history->size(); ++i) {
        highestKb = std::max(highestKb, history->at(i).physMemFree);
    }
    const MemoryScale scale = memoryScale(highestKb);
    writeAxes(out, start, scale);
    std::vector<std::pair<int, int>> idle, memory;
    for (std::size_t i = 0; history != nullptr && i < history->size(); ++i) {
        const HistoryEntry& entry = history->at(i);
        if (entry.time < start || entry.time > now) {
            continue;
        }
        const int x = xOf(entry.time, start);
        idle.emplace_back(x, yOf(std::min(entry.idle, 100u) / 100.0));
        memory.emplace_back(x, yOf(entry.physMemFree / scale.topKb()));
    }
    if (idle.empty()) {
        text(out, (PLOT_LEFT + PLOT_RIGHT) / 2, (PLOT_TOP + PLOT_BOTTOM) / 2, "middle",
             "No load samples in the last hour");
    } else {
        polyline(out, memory, MEMORY_COLOUR);
        polyline(out, idle, IDLE_COLOUR);
    }
    out.append("</svg></div>");
}

void setting(std::string& out, std::string_view name, std::string_view value) {
    out.append("<dt>").append(name).append("</dt><dd>").append(value).append("</dd>");
}

void writeSettings(std::string& out) {
    if (myBootstrap == nullptr) {
        return;
    }
    const Bootstrap& b = *myBootstrap;
    out.append("<h2>Settings</h2><div class=\"panel\"><dl>");
    setting(out, "Control port", std::to_string(b.getPort()));
    setting(out, "Agent port", b.getAgentPort() ? std::to_string(b.getAgentPort()) : "off");
    setting(out, "Sample rate", std::to_string(b.getSampleRate()) + " s");
    setting(out, "Window size", std::to_string(b.getWindowSize()) + " samples");
    setting(out, "Minimum cache size", std::to_string(b.getMinCacheSize()) + " samples");
    setting(out, "Subscription lifetime", std::to_string(b.getHostLifeTime()) + " s");
    setting(out, "Processors", std::to_string(b.getNumProcessors()));
    setting(out, "Load tool", escaped(b.getProbePath().AsUtf8()));
    setting(out, "Allowed networks", escaped(b.getAllow().AsUtf8()));
    setting(out, "Pid directory", escaped(b.getPidDirectory().AsUtf8()));
    out.append("</dl></div>");
}

void writeRow(std::string& out, const Host& host) {
    const std::string destination =
        escaped(host.getHostname().AsUtf8()) + ":" + std::to_string(host.getPort());
    std::string stats;
    const unsigned mask = host.getStatMask();
    if (mask & Host::CPU) {
        stats += "cpu=" + std::to_string(host.getLastIdle()) + " ";
    }
    if (mask & Host::BOGO) {
        stats += "bogo=" + std::to_string(host.getLastBogo()) + " ";
    }
    if (mask & Host::VMEM) {
        stats += "vmem=" + std::to_string(host.getLastVmemFree());
    }
    out.append("<tr><td>" + std::to_string(host.getId()) + "</td><td class=\"l\">" + destination +
               "</td><td>" + std::to_string(host.getSampleRate()) + " s</td><td>" +
               std::to_string(host.getWindowSize()) + "</td><td>" +
               std::to_string(host.getReplyFrequency()) + " s</td><td>" +
               std::to_string(host.getPercentChange()) + "%</td><td>" +
               clock(host.getLastTime().Seconds(), "%H:%M:%S") + "</td><td class=\"l\">" + stats +
               "</td></tr>");
}

void writeSubscriptions(std::string& out, std::size_t maxRows) {
    const auto& hosts = HostListMgr::getHostList();
    out.append("<h2>Subscriptions (" + std::to_string(hosts.size()) + ")</h2>");
    if (hosts.empty()) {
        out.append("<p class=\"more\">No load balancer is subscribed.</p>");
        return;
    }
    // Only the lowest ids are shown: pick them without sorting the whole registry.
    std::vector<const Host*> shown;
    shown.reserve(hosts.size());
    for (const auto& host : hosts) {
        shown.push_back(&*host);
    }
    const std::size_t rows = std::min(maxRows, shown.size());
    const auto byId = [](const Host* a, const Host* b) { return a->getId() < b->getId(); };
    std::partial_sort(shown.begin(), shown.begin() + static_cast<std::ptrdiff_t>(rows), shown.end(),
                      byId);
    out.append("<div class=\"scroll\"><table><thead><tr><th>Id</th><th class=\"l\">Destination"
               "</th><th>Sample rate</th><th>Window</th><th>Reply every</th><th>Change</th>"
               "<th>Last sent</th><th class=\"l\">Last stats</th></tr></thead><tbody>");
    for (std::size_t i = 0; i < rows; ++i) {
        writeRow(out, *shown[i]);
    }
    out.append("</tbody></table></div>");
    if (rows < shown.size()) {
        out.append("<p class=\"more\">" + std::to_string(shown.size() - rows) +
                   " more subscriptions not shown (the " + std::to_string(rows) +
                   " lowest ids are listed).</p>");
    }
}

} // namespace

std::string StatusPage::render(std::time_t startedAt, std::time_t now, std::size_t maxRows) {
    std::string out;
    out.reserve(16384 + std::min(maxRows, HostListMgr::getHostList().size()) * 256);
    writeHead(out, startedAt, now);
    writeReadings(out);
    writeChart(out, now);
    writeSettings(out);
    writeSubscriptions(out, maxRows);
    out.append("</main></body></html>\n");
    return out;
}

std::string StatusPage::notFound() {
    return "<!DOCTYPE html><title>Not found</title><p>Not found: try <a href=\"/\">/</a> "
           "or <a href=\"/metrics\">/metrics</a>.</p>\n";
}
