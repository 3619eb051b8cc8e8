// HTTP framing of control requests: which texts are HTTP, when their headers are complete,
// where the limit falls; and the parts read from a complete request.
#include <gtest/gtest.h>

#include "probe/httprequest.h"

namespace {

using Framing = HttpRequest::Framing;

TEST(HttpRequest, FramingDecidesFromTheFirstLineAndTheEmptyLine) {
    const std::pair<const char*, Framing> cases[] = {
        {"GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n", Framing::Complete},
        {"GET /?get&cvnlbinfo HTTP/1.0\r\n\r\n", Framing::Complete},
        {"GET /metrics HTTP/1.1\r\nHost: x\r\n", Framing::Partial},
        {"GET /metr", Framing::Partial},
        // Not HTTP/1.x, or not a GET of a path: the old one-read framing.
        {"GET /?get&cvnlbinfo\r\n", Framing::NotHttp},
        {"GET /x HTTP/2.0\r\n\r\n", Framing::NotHttp},
        {"GET x HTTP/1.0\r\n\r\n", Framing::NotHttp},
        {"get / HTTP/1.0\r\n\r\n", Framing::NotHttp},
        {"", Framing::NotHttp}};
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(HttpRequest::frame(text), expected) << text;
}

TEST(HttpRequest, HeadersEndWithinTheLimitOrAreRefused) {
    const std::string head = "GET / HTTP/1.1\r\nX: ";
    const auto padded = [&](std::size_t total, const std::string& end) {
        return head + std::string(total - head.size() - end.size(), 'x') + end;
    };
    EXPECT_EQ(HttpRequest::frame(padded(HttpRequest::MAX_LENGTH, "\r\n\r\n")), Framing::Complete);
    EXPECT_EQ(HttpRequest::frame(padded(HttpRequest::MAX_LENGTH + 1, "\r\n\r\n")),
              Framing::TooLong);
    EXPECT_EQ(HttpRequest::frame("GET /" + std::string(HttpRequest::MAX_LENGTH, 'a')),
              Framing::TooLong);
}

TEST(HttpRequest, ReadsThePathWithoutItsQueryAndWhetherHtmlIsAccepted) {
    const HttpRequest browser("GET /status?x=1 HTTP/1.1\r\nHost: h\r\n"
                              "aCCept: text/html,application/xhtml+xml\r\n\r\n");
    EXPECT_EQ(browser.path(), "/status");
    EXPECT_TRUE(browser.acceptsHtml());
    const HttpRequest scraper("GET /metrics HTTP/1.0\nAccept: text/plain\nX-Note: text/html\n\n");
    EXPECT_EQ(scraper.path(), "/metrics");
    EXPECT_FALSE(scraper.acceptsHtml());
    EXPECT_EQ(HttpRequest("GET /?get&cvnlbinfo HTTP/1.0\r\n\r\n").path(), "/");
}

TEST(HttpRequest, ResponsesCarryLengthAndClose) {
    EXPECT_EQ(HttpRequest::response("404 Not Found", "text/html", "<p>x</p>\n"),
              "HTTP/1.0 404 Not Found\r\nContent-Type: text/html\r\nContent-Length: 9\r\n"
              "Cache-Control: no-store\r\nConnection: close\r\n\r\n<p>x</p>\n");
}

} // namespace
