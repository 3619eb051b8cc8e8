// Each family is written with its HELP and TYPE lines and then its samples; label values are
// fixed words, so nothing needs escaping but the version string.
#include "probe/metricspage.h"

#include <charconv>
#include <cstdint>
#include <string_view>

#include "probe/adminstate.h"
#include "probe/bogomips.h"
#include "probe/bootstrap.h"
#include "probe/cache.h"
#include "probe/counters.h"
#include "probe/hostlistmgr.h"

namespace {

constexpr double BYTES_PER_KB = 1024.0;

class Writer {
public:
    explicit Writer(std::string& out) : out_(out) {}

    void family(std::string_view name, std::string_view type, std::string_view help) {
        out_.append("# HELP ").append(name).append(" ").append(help).append("\n");
        out_.append("# TYPE ").append(name).append(" ").append(type).append("\n");
    }
    void sample(std::string_view name, double value, std::string_view labels = {}) {
        out_.append(name);
        if (!labels.empty()) {
            out_.append("{").append(labels).append("}");
        }
        char text[32];
        const auto end = std::to_chars(text, text + sizeof text, value).ptr;
        out_.append(" ").append(text, end).append("\n");
    }
    void one(std::string_view name, std::string_view type, std::string_view help, double value) {
        family(name, type, help);
        sample(name, value);
    }

private:
    std::string& out_;
};

std::string quoted(std::string_view text) {
    std::string result = "\"";
    for (const char c : text) {
        if (c == '\\' || c == '"') {
            result += '\\';
        }
        result += c == '\n' ? ' ' : c;
    }
    return result + "\"";
}

void writeProcess(Writer& w, std::time_t startedAt) {
    w.family("hostgauge_build_info", "gauge", "The running daemon's version, as a label.");
    w.sample("hostgauge_build_info", 1, "version=" + quoted(HOSTGAUGE_VERSION));
    w.one("hostgauge_start_time_seconds", "gauge",
          "When the daemon started, in seconds since the Unix epoch.",
          static_cast<double>(startedAt));
}

void writeReadings(Writer& w) {
    w.one("hostgauge_cpu_rating", "gauge",
          "The processors' speed rating sent to balancers as bogo (higher is faster).",
          myBogomips ? myBogomips->getBestBogo() : 0);
    if (myCache == nullptr || myCache->getHistory().size() == 0) {
        return;
    }
    const History& history = myCache->getHistory();
    const HistoryEntry& newest = history.at(history.size() - 1);
    w.one("hostgauge_sample_time_seconds", "gauge",
          "When the newest load sample was cached, in seconds since the Unix epoch.",
          static_cast<double>(newest.time));
    w.one("hostgauge_cpu_idle_ratio", "gauge",
          "Idle share of the processors in the newest load sample, 0 to 1.", newest.idle / 100.0);
    w.one("hostgauge_memory_virtual_free_bytes", "gauge",
          "Free virtual memory (free memory and swap) in the newest load sample.",
          newest.virtualMemFree * BYTES_PER_KB);
    w.one("hostgauge_memory_physical_free_bytes", "gauge",
          "Free physical memory in the newest load sample.", newest.physMemFree * BYTES_PER_KB);
    w.family("hostgauge_swap_pages", "gauge",
             "Pages swapped in and out during the newest load sample's interval.");
    w.sample("hostgauge_swap_pages", newest.swappedIn, "direction=\"in\"");
    w.sample("hostgauge_swap_pages", newest.swappedOut, "direction=\"out\"");
    w.one("hostgauge_samples_cached", "gauge", "Load samples held in the cache.",
          static_cast<double>(myCache->getLength()));
}

void writeSubscriptions(Writer& w) {
    w.one("hostgauge_subscriptions", "gauge", "Load balancers subscribed to load datagrams.",
          static_cast<double>(HostListMgr::getHostList().size()));
    if (myBootstrap != nullptr) {
        w.one("hostgauge_subscriptions_limit", "gauge",
              "Subscriptions beyond which a CREATE is refused.", myBootstrap->getMaxHosts());
    }
    if (myAdminState != nullptr) {
        w.family("hostgauge_admin_state", "gauge",
                 "The operator's state for this server: 1 for the state in force.");
        for (const auto mode :
             {AdminState::Mode::Ready, AdminState::Mode::Drain, AdminState::Mode::Maint}) {
            w.sample("hostgauge_admin_state", myAdminState->mode() == mode ? 1 : 0,
                     "state=" + quoted(AdminState::name(mode)));
        }
    }
}

void writeCounters(Writer& w) {
    const Counters& c = myCounters;
    const auto count = [](std::uint64_t value) { return static_cast<double>(value); };
    w.family("hostgauge_requests_total", "counter", "Control requests answered, by command.");
    w.sample("hostgauge_requests_total", count(c.creates), "command=\"create\"");
    w.sample("hostgauge_requests_total", count(c.kills), "command=\"kill\"");
    w.sample("hostgauge_requests_total", count(c.statusQueries), "command=\"status\"");
    w.sample("hostgauge_requests_total", count(c.admins), "command=\"admin\"");
    w.family("hostgauge_request_errors_total", "counter",
             "Control requests refused: an error reply, or a length out of bounds.");
    w.sample("hostgauge_request_errors_total", count(c.errorReplies), "reason=\"error_reply\"");
    w.sample("hostgauge_request_errors_total", count(c.badRequests), "reason=\"bad_length\"");
    w.family("hostgauge_http_requests_total", "counter", "HTTP views served, by view.");
    w.sample("hostgauge_http_requests_total", count(c.metricsPages), "view=\"metrics\"");
    w.sample("hostgauge_http_requests_total", count(c.statusPages), "view=\"status\"");
    w.sample("hostgauge_http_requests_total", count(c.notFound), "view=\"not_found\"");
    w.one("hostgauge_agent_checks_total", "counter", "Lines answered on the agent port.",
          count(c.agentAnswers));
    w.one("hostgauge_datagrams_sent_total", "counter", "Load datagrams sent to subscribers.",
          count(c.datagramsSent));
    w.one("hostgauge_datagrams_failed_total", "counter",
          "Load datagrams the system refused to send.", count(c.datagramsFailed));
    w.one("hostgauge_tool_runs_total", "counter", "Runs of the load tool started.",
          count(c.toolRuns));
    w.one("hostgauge_tool_empty_runs_total", "counter",
          "Runs of the load tool that ended without a single sample.", count(c.emptyToolRuns));
}

} // namespace

std::string MetricsPage::render(std::time_t startedAt) {
    std::string text;
    text.reserve(4096);
    Writer writer(text);
    writeProcess(writer, startedAt);
    writeReadings(writer);
    writeSubscriptions(writer);
    writeCounters(writer);
    return text;
}
