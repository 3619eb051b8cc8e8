// HttpRequest: recognises a control request that is an HTTP GET (`GET <path> HTTP/1.0` or
// `HTTP/1.1` on its first line), tells when its headers are complete, and reads the parts
// the daemon's views need: the path and whether the client takes HTML. Also builds the
// HTTP/1.0 responses those views send.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

class HttpRequest {
public:
    // Headers beyond this are refused like any over-long request.
    static constexpr std::size_t MAX_LENGTH = 8192;

    enum class Framing {
        NotHttp,  // any other request: read and answered as before
        Partial,  // may be, or is, an HTTP request whose headers have not all arrived
        Complete, // an HTTP request up to the empty line that ends its headers
        TooLong,  // an HTTP request whose headers run past MAX_LENGTH
    };
    static Framing frame(std::string_view text);

    // `text` must have framed as Complete.
    explicit HttpRequest(std::string_view text);
    // The path without its query: "/metrics" for "GET /metrics?x HTTP/1.1".
    std::string_view path() const { return path_; }
    // Whether an Accept header lists text/html, as browsers send and balancers do not.
    bool acceptsHtml() const { return acceptsHtml_; }

    // An HTTP/1.0 response that closes the connection: status line, headers, body.
    static std::string response(std::string_view status, std::string_view contentType,
                                std::string_view body);
    // The status line and headers that go before the raw XML report for a browser.
    static constexpr std::string_view XML_HEAD =
        "HTTP/1.0 200 OK\r\nContent-Type: text/xml; charset=utf-8\r\n\r\n";

private:
    std::string_view path_;
    bool acceptsHtml_ = false;
};
