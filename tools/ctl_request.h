// hostgauge-ctl: the requests it sends on the daemon's control port. The status query is the
// web-style GET line; subscribe and kill are tagged requests with version 1.0. Also the
// checks that keep a person's typing from turning into a request the daemon misreads.
#pragma once

#include <charconv>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ctl {

// Senders must deliver a request in one piece of at most this many bytes.
constexpr std::size_t kMaxRequest = 512;
constexpr std::string_view kStatusRequest = "GET /?get&cvnlbinfo HTTP/1.0\r\n\r\n";
constexpr std::string_view kVersion = "1.0";

struct Subscription {
    std::string host;
    std::uint32_t port = 0;
    std::uint32_t sampleRateMs = 5000;
    std::uint32_t windowSize = 3;
    std::uint32_t replyFreqMs = 30000;
    std::uint32_t percentChange = 10;
    std::uint32_t id = 0;
    std::vector<std::string> stats{"cpu", "bogo", "vmem"};
};

// Whole text must be a decimal number within [low, high].
inline bool ParseNumber(std::string_view text, std::uint32_t low, std::uint32_t high,
                        std::uint32_t& value) {
    std::uint32_t parsed = 0;
    const auto* end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, parsed);
    if (text.empty() || ec != std::errc() || ptr != end || parsed < low || parsed > high)
        return false;
    value = parsed;
    return true;
}

// The daemon decodes %-escapes and scans tags by hand, so a host name may hold only the
// characters real names and dotted addresses use.
inline bool ValidHostName(std::string_view host) {
    if (host.empty())
        return false;
    for (const char c : host) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                           (c >= '0' && c <= '9') || c == '.' || c == '-' || c == '_';
        if (!plain)
            return false;
    }
    return true;
}

// "cpu,bogo" into its words; false on an empty, unknown or repeated word. The daemon keeps
// only three stat elements, and there are only three words.
inline bool ParseStats(std::string_view text, std::vector<std::string>& stats) {
    std::vector<std::string> words;
    while (true) {
        const auto comma = text.find(',');
        const std::string word(text.substr(0, comma));
        if (word != "cpu" && word != "bogo" && word != "vmem")
            return false;
        for (const auto& seen : words) {
            if (seen == word)
                return false;
        }
        words.push_back(word);
        if (comma == std::string_view::npos)
            break;
        text.remove_prefix(comma + 1);
    }
    stats = std::move(words);
    return true;
}

inline std::string Element(std::string_view name, std::string_view value) {
    std::string text;
    text.append("<").append(name).append(">").append(value);
    text.append("</").append(name).append(">");
    return text;
}

inline std::string Element(std::string_view name, std::uint32_t value) {
    return Element(name, std::to_string(value));
}

// The request element names are the daemon's ("replyfreq", not the reply's spelling).
inline std::string CreateRequest(const Subscription& s) {
    std::string text = "<cvnlbreq command=CREATE>" + Element("version", kVersion);
    text += Element("host", s.host) + Element("port", s.port);
    text += Element("samplerate", s.sampleRateMs) + Element("windowsize", s.windowSize);
    text += Element("id", s.id) + Element("replyfreq", s.replyFreqMs);
    text += Element("percentchange", s.percentChange);
    for (const auto& stat : s.stats)
        text += Element("stat", stat);
    return text + "</cvnlbreq>";
}

inline std::string KillRequest(std::uint32_t id) {
    return "<cvnlbreq command=KILL>" + Element("version", kVersion) + Element("id", id) +
           "</cvnlbreq>";
}

} // namespace ctl
