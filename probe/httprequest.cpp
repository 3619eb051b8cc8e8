// HTTP framing and responses for the control port's views. Only GET with an HTTP/1.x
// version counts as HTTP: the status query of old balancers without a version, and every
// tagged request, keep their own framing.
#include "probe/httprequest.h"

#include <algorithm>
#include <cctype>

namespace {

constexpr std::string_view METHOD = "GET ";

bool lineEnded(std::string_view text) {
    return text.find('\n') != std::string_view::npos;
}

// The first line without its ending, or all of the text while that line has not ended.
std::string_view firstLine(std::string_view text) {
    std::string_view line = text.substr(0, text.find('\n'));
    if (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
    }
    return line;
}

bool isHttpLine(std::string_view line) {
    if (!line.starts_with(METHOD)) {
        return false;
    }
    const std::size_t space = line.rfind(' ');
    if (space < METHOD.size() + 1) {
        return false; // no path between the method and the version
    }
    const std::string_view version = line.substr(space + 1);
    return line[METHOD.size()] == '/' && (version == "HTTP/1.0" || version == "HTTP/1.1");
}

// Where the empty line that ends the headers ends, or npos.
std::size_t headersEnd(std::string_view text) {
    const std::size_t crlf = text.find("\r\n\r\n");
    const std::size_t lf = text.find("\n\n");
    if (crlf == std::string_view::npos && lf == std::string_view::npos) {
        return std::string_view::npos;
    }
    return std::min(crlf == std::string_view::npos ? crlf : crlf + 4,
                    lf == std::string_view::npos ? lf : lf + 2);
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

} // namespace

HttpRequest::Framing HttpRequest::frame(std::string_view text) {
    const std::string_view line = firstLine(text);
    if (!lineEnded(text)) {
        // A GET whose first line has not ended may still turn out to be HTTP.
        const bool mayBeHttp = line.size() < METHOD.size()
                                   ? METHOD.starts_with(line) && !line.empty()
                                   : line.starts_with(METHOD);
        if (!mayBeHttp) {
            return Framing::NotHttp;
        }
        return text.size() > MAX_LENGTH ? Framing::TooLong : Framing::Partial;
    }
    if (!isHttpLine(line)) {
        return Framing::NotHttp;
    }
    const std::size_t end = headersEnd(text);
    if (end != std::string_view::npos) {
        return end > MAX_LENGTH ? Framing::TooLong : Framing::Complete;
    }
    return text.size() > MAX_LENGTH ? Framing::TooLong : Framing::Partial;
}

HttpRequest::HttpRequest(std::string_view text) {
    const std::string_view line = firstLine(text);
    const std::string_view target = line.substr(METHOD.size(), line.rfind(' ') - METHOD.size());
    path_ = target.substr(0, target.find('?'));
    std::size_t at = text.find('\n');
    while (at != std::string_view::npos && at + 1 < text.size()) {
        const std::size_t end = text.find('\n', at + 1);
        std::string_view header = text.substr(
            at + 1, end == std::string_view::npos ? std::string_view::npos : end - at - 1);
        at = end;
        const std::size_t colon = header.find(':');
        if (colon != std::string_view::npos &&
            equalsIgnoringCase(header.substr(0, colon), "accept") &&
            header.find("text/html", colon) != std::string_view::npos) {
            acceptsHtml_ = true;
        }
    }
}

std::string HttpRequest::response(std::string_view status, std::string_view contentType,
                                  std::string_view body) {
    std::string text;
    text.reserve(body.size() + 160);
    text.append("HTTP/1.0 ").append(status).append("\r\nContent-Type: ").append(contentType);
    text.append("\r\nContent-Length: ").append(std::to_string(body.size()));
    text.append("\r\nCache-Control: no-store\r\nConnection: close\r\n\r\n").append(body);
    return text;
}
