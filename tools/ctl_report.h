// hostgauge-ctl: reading what the daemon sends back. Replies and load datagrams are single
// lines of XML with a fixed shape, so plain element look-ups are enough; this turns them into
// the lines and the status table a person reads.
#pragma once

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ctl {

// The content of the next <name>...</name> at or after `from`; `from` moves past it.
inline std::optional<std::string_view> NextElement(std::string_view xml, std::string_view name,
                                                   std::size_t& from) {
    const std::string open = "<" + std::string(name) + ">";
    const std::string close = "</" + std::string(name) + ">";
    const auto start = xml.find(open, from);
    if (start == std::string_view::npos)
        return std::nullopt;
    const auto content = start + open.size();
    const auto end = xml.find(close, content);
    if (end == std::string_view::npos)
        return std::nullopt;
    from = end + close.size();
    return xml.substr(content, end - content);
}

inline std::string ElementOr(std::string_view xml, std::string_view name,
                             std::string_view fallback = "") {
    std::size_t from = 0;
    return std::string(NextElement(xml, name, from).value_or(fallback));
}

inline std::string_view Trim(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\r' || text.front() == '\n'))
        text.remove_prefix(1);
    while (!text.empty() &&
           (text.back() == ' ' || text.back() == ';' || text.back() == '\r' || text.back() == '\n'))
        text.remove_suffix(1);
    return text;
}

// The readings of a stats element ("cpu=93 bogo=4312 ") without the closing blank.
inline std::string Readings(std::string_view stats) {
    const std::string_view trimmed = Trim(stats);
    return trimmed.empty() ? "-" : std::string(trimmed);
}

struct Reply {
    std::string type;  // "create", "kill", "get", "error"; empty when the reply is not XML
    std::string error; // what went wrong, for an error or a reply that is not XML
    bool Failed() const { return type.empty() || type == "error"; }
};

inline Reply ReadReply(std::string_view text) {
    constexpr std::string_view marker = "<cvnlbreply type=\"";
    Reply reply;
    const auto at = text.find(marker);
    const auto end = at == std::string_view::npos ? at : text.find('"', at + marker.size());
    if (end == std::string_view::npos) {
        // The daemon answers a request of the wrong length with a bare line of text.
        reply.error = Trim(text).empty() ? "empty reply" : std::string(Trim(text));
        return reply;
    }
    reply.type = text.substr(at + marker.size(), end - at - marker.size());
    if (reply.type == "error") {
        // Every error text arrives behind a fixed "get /" and ends in "; ".
        const std::string element = ElementOr(text, "error");
        std::string_view error = Trim(element);
        if (error.starts_with("get /"))
            error.remove_prefix(5);
        reply.error = Trim(error);
    }
    return reply;
}

// One line for an accepted subscribe or kill.
inline std::string DescribeReply(std::string_view text, const Reply& reply) {
    const std::string id = ElementOr(text, "id", "?");
    if (reply.type == "create")
        return "subscribed id " + id + ": " + Readings(ElementOr(text, "stats"));
    if (reply.type == "kill")
        return "unsubscribed id " + id;
    return "reply: " + std::string(Trim(text));
}

// Lays rows out in columns two blanks apart; the last column is not padded.
inline std::string Columns(const std::vector<std::vector<std::string>>& rows) {
    std::vector<std::size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], row[i].size());
    }
    std::string text;
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            text += row[i];
            if (i + 1 < row.size())
                text.append(widths[i] - row[i].size() + 2, ' ');
        }
        text += '\n';
    }
    return text;
}

// The probe's own part comes before the first connection element; searching only there
// keeps a connection's port or sample rate from being taken for the probe's.
inline std::string ProbeLine(std::string_view probe) {
    return "probe: port " + ElementOr(probe, "port", "?") + ", sample rate " +
           ElementOr(probe, "samplerate", "?") + " s, window " +
           ElementOr(probe, "windowsize", "?") + " samples, " +
           Readings(ElementOr(probe, "stats")) + ", measured " + ElementOr(probe, "time", "?") +
           "\n";
}

inline std::vector<std::string> ConnectionRow(std::string_view c) {
    return {ElementOr(c, "id"),
            ElementOr(c, "host"),
            ElementOr(c, "port"),
            ElementOr(c, "samplerate") + " s",
            ElementOr(c, "windowsize"),
            ElementOr(c, "replyfrequency") + " s",
            ElementOr(c, "percentchange") + " %",
            ElementOr(c, "time"),
            Readings(ElementOr(c, "stats"))};
}

// The status report as a probe line and one row per subscription.
inline std::string StatusTable(std::string_view report) {
    const auto first = report.find("<connection>");
    std::string text = ProbeLine(report.substr(0, first));
    std::vector<std::vector<std::string>> rows{
        {"ID", "HOST", "PORT", "RATE", "WINDOW", "EVERY", "CHANGE", "LAST SENT", "LAST STATS"}};
    std::size_t from = 0;
    while (const auto connection = NextElement(report, "connection", from))
        rows.push_back(ConnectionRow(*connection));
    if (rows.size() == 1)
        return text + "no subscriptions\n";
    return text + Columns(rows);
}

// One load datagram as a line: arrival stamp, sender, id, sequence number and readings.
inline std::string DatagramLine(std::string_view stamp, std::string_view from,
                                std::string_view datagram) {
    std::string line = std::string(stamp) + " from " + std::string(from) + " ";
    std::size_t at = 0;
    const auto id = NextElement(datagram, "id", at);
    const auto seqno = NextElement(datagram, "seqno", at);
    const auto stats = NextElement(datagram, "stats", at);
    if (datagram.find("<cvnlbdata>") == std::string_view::npos || !id || !seqno || !stats) {
        std::string raw(datagram);
        std::replace_if(
            raw.begin(), raw.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
        return line + "unrecognised datagram: " + raw;
    }
    return line + "id " + std::string(*id) + " seqno " + std::string(*seqno) + " " +
           Readings(*stats);
}

} // namespace ctl
