// End-to-end: the control port's HTTP views as a browser, Prometheus and a person see them:
// /metrics checked by the real promtool, the status page's readings, chart and table, the
// XML report for a browser's long request, requests split across reads, and what is refused.
#include <gtest/gtest.h>

#include "tests/e2e/daemon_fixture.h"

namespace {

using namespace e2e;

std::string get(unsigned short port, const std::string& path) {
    return request(port, "GET " + path + " HTTP/1.0\r\nUser-Agent: test\r\n\r\n");
}

std::string body(const std::string& response) {
    const auto end = response.find("\r\n\r\n");
    return end == std::string::npos ? std::string() : response.substr(end + 4);
}

// The value of one metric line ("name{labels} value"), or -1.
double metric(const std::string& text, const std::string& series) {
    for (const auto& line : lines(text)) {
        if (line.rfind(series + " ", 0) == 0)
            return std::stod(line.substr(series.size() + 1));
    }
    return -1;
}

TEST(Views, MetricsStatusPageAndXmlReportAsPrometheusPeopleAndBrowsersSeeThem) {
    Daemon daemon;
    Subscriber subscriber;
    daemon.toolPrints(toolRun(40));
    ASSERT_TRUE(daemon.startServing());
    const unsigned short port = daemon.port();
    const auto scrape = [&] { return body(get(port, "/metrics")); };
    ASSERT_TRUE(waitFor([&] { return metric(scrape(), "hostgauge_cpu_idle_ratio") == 0.4; }));

    // The metrics pass promtool and count what happened, also across a reopen of the logs.
    ASSERT_TRUE(daemon.subscribe(2007, subscriber.port()));
    ASSERT_TRUE(daemon.subscribe(2003, subscriber.port()));
    request(port, killRequest(2003));
    request(port, "<cvnlbreq command=KILL><id>2003</id></cvnlbreq>"); // no version
    request(port, "short");
    ASSERT_TRUE(subscriber.receive(15s).has_value());
    const std::string response = get(port, "/metrics");
    EXPECT_EQ(response.rfind("HTTP/1.0 200 OK\r\n", 0), 0u) << response;
    EXPECT_NE(response.find("\r\nContent-Type: text/plain; version=0.0.4"), std::string::npos);
    const std::string text = body(response);
    writeFile(daemon.dir() / "metrics.txt", text);
    const auto promtool =
        shell("promtool check metrics < " + (daemon.dir() / "metrics.txt").string());
    EXPECT_EQ(promtool.status, 0) << promtool.out << text;
    EXPECT_EQ(promtool.out, "") << "promtool found something to say";

    EXPECT_EQ(metric(text, "hostgauge_memory_physical_free_bytes"), 2048 * 1024.0);
    EXPECT_EQ(metric(text, "hostgauge_swap_pages{direction=\"out\"}"), 4);
    EXPECT_EQ(metric(text, "hostgauge_subscriptions"), 1);
    EXPECT_EQ(metric(text, "hostgauge_requests_total{command=\"create\"}"), 2);
    EXPECT_EQ(metric(text, "hostgauge_requests_total{command=\"kill\"}"), 1);
    EXPECT_EQ(metric(text, "hostgauge_request_errors_total{reason=\"error_reply\"}"), 1);
    EXPECT_EQ(metric(text, "hostgauge_request_errors_total{reason=\"bad_length\"}"), 1);
    EXPECT_GE(metric(text, "hostgauge_datagrams_sent_total"), 1);
    EXPECT_GE(metric(text, "hostgauge_tool_runs_total"), 1);
    EXPECT_GT(metric(text, "hostgauge_cpu_rating"), 0);
    EXPECT_EQ(metric(text, "hostgauge_admin_state{state=\"ready\"}"), 1);

    const fs::path log = daemon.dir() / ("hostgauge" + std::to_string(daemon.pid()) + "_error.log");
    fs::rename(log, daemon.dir() / "rotated.log");
    ::kill(daemon.pid(), SIGHUP);
    ASSERT_TRUE(waitFor([&] { return fs::exists(log); })) << "the log was not reopened";
    const std::string after = scrape();
    EXPECT_EQ(metric(after, "hostgauge_requests_total{command=\"create\"}"), 2);
    EXPECT_EQ(metric(after, "hostgauge_http_requests_total{view=\"metrics\"}"),
              metric(text, "hostgauge_http_requests_total{view=\"metrics\"}") + 1);

    // The status page: readings, chart, and subscriptions by id up to the row limit.
    for (const unsigned id : {1005u, 2u, 1u})
        ASSERT_TRUE(daemon.subscribe(id, subscriber.port()));
    const std::string page = get(port, "/");
    EXPECT_EQ(page.rfind("HTTP/1.0 200 OK\r\n", 0), 0u);
    EXPECT_NE(page.find("\r\nContent-Type: text/html; charset=utf-8\r\n"), std::string::npos);
    EXPECT_NE(page.find("\r\n\r\n<!DOCTYPE html>"), std::string::npos);
    EXPECT_NE(page.find("<b>40 %</b>"), std::string::npos) << "the newest idle";
    EXPECT_NE(page.find("<polyline"), std::string::npos) << "no line in the chart";
    const auto row = [&](unsigned id) {
        return page.find("<tr><td>" + std::to_string(id) + "</td><td class=\"l\">127.0.0.1:");
    };
    ASSERT_NE(row(1), std::string::npos);
    EXPECT_LT(row(1), row(2));
    EXPECT_LT(row(2), row(1005));
    EXPECT_EQ(page.find("more subscriptions not shown"), std::string::npos);
    // Past 1,000 rows the lowest ids are listed and the rest (1001, 1005 and 2007) counted.
    for (unsigned id = 3; id <= 1001; ++id)
        ASSERT_TRUE(daemon.subscribe(id, subscriber.port()));
    const std::string full = body(get(port, "/status"));
    EXPECT_NE(full.find("<tr><td>1000</td>"), std::string::npos);
    EXPECT_EQ(full.find("<tr><td>1001</td>"), std::string::npos);
    EXPECT_NE(full.find("<p class=\"more\">3 more subscriptions not shown"), std::string::npos);

    // A balancer gets the XML report raw, a browser's long request gets it with headers.
    const std::string raw = request(port, kStatusRequest);
    EXPECT_EQ(raw.rfind("<?xml version=\"1.0\"?><cvnlbreply type=\"get\">", 0), 0u) << raw;
    // Longer than any other request may be, text/html first in Accept, as browsers send it.
    const std::string asked = "GET /?get&cvnlbinfo HTTP/1.1\r\nUser-Agent: Mozilla/5.0 " +
                              std::string(600, 'x') +
                              "\r\nAccept: text/html,application/xml;q=0.9,*/*;q=0.8\r\n\r\n";
    const std::string shown = request(port, asked);
    EXPECT_EQ(shown.rfind("HTTP/1.0 200 OK\r\nContent-Type: text/xml; charset=utf-8\r\n\r\n"
                          "<?xml version=\"1.0\"?><cvnlbreply type=\"get\">",
                          0),
              0u)
        << shown;

    // Headers in pieces are gathered up to the empty line; past 8 KiB they are refused.
    const std::string pieces = request(port, {"GET /metr", "ics HTTP/1.1\r\nHost: x\r\n", "\r\n"});
    EXPECT_EQ(pieces.rfind("HTTP/1.0 200 OK\r\n", 0), 0u) << pieces;
    const std::string huge = "GET / HTTP/1.1\r\nX-Filler: " + std::string(9000, 'x') + "\r\n\r\n";
    EXPECT_EQ(request(port, huge), "Message is either too short or too long to be valid");
    const std::string missing = get(port, "/favicon.ico");
    EXPECT_EQ(missing.rfind("HTTP/1.0 404 Not Found\r\n", 0), 0u);
    EXPECT_EQ(body(missing).find('\n'), body(missing).size() - 1) << "one line of body";
}

} // namespace
