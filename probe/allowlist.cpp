// Parsing and matching the allow list. An entry's host bits are cleared, so
// "192.168.1.7/24" means the whole /24, as routers read it.
#include "probe/allowlist.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <string>

#include "probe/messages.h"

AllowList* myAllowList = nullptr;

namespace {

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
        text.remove_suffix(1);
    return text;
}

} // namespace

AllowList::AllowList(const KyUniString& entries, const KyUniString& key) {
    const std::string text = entries.AsUtf8();
    std::string_view rest = text;
    while (true) {
        const auto comma = rest.find(',');
        const std::string_view entry = trimmed(rest.substr(0, comma));
        Network network{};
        if (parse(entry, network)) {
            networks_.push_back(network);
        } else {
            LogStringAttrBadValue(key, KyUniString(entry), KyUniString("The entry is skipped."));
        }
        if (comma == std::string_view::npos)
            break;
        rest.remove_prefix(comma + 1);
    }
    // Like any unusable setting, a list without one good entry gives way to the default.
    if (networks_.empty()) {
        LogStringAttrBadValue(key, entries,
                              KyUniString("No entry is usable; everyone is allowed."));
        networks_.push_back(Network{0, 0});
    }
}

bool AllowList::parse(std::string_view entry, Network& network) {
    const auto slash = entry.find('/');
    if (slash == std::string_view::npos)
        return false;
    const std::string address(entry.substr(0, slash));
    const std::string_view length = entry.substr(slash + 1);
    unsigned bits = 0;
    const auto [end, error] = std::from_chars(length.data(), length.data() + length.size(), bits);
    in_addr parsed{};
    // inet_pton takes only the four-part dotted form, unlike inet_aton's shorthands.
    if (length.empty() || error != std::errc() || end != length.data() + length.size() ||
        bits > 32 || ::inet_pton(AF_INET, address.c_str(), &parsed) != 1)
        return false;
    network.mask = bits == 0 ? 0 : ~std::uint32_t(0) << (32 - bits);
    network.base = ntohl(parsed.s_addr) & network.mask;
    return true;
}

bool AllowList::permits(std::uint32_t hostOrder) const {
    return std::any_of(networks_.begin(), networks_.end(), [hostOrder](const Network& network) {
        return (hostOrder & network.mask) == network.base;
    });
}

bool AllowList::allowsEveryone() const {
    return std::any_of(networks_.begin(), networks_.end(),
                       [](const Network& network) { return network.mask == 0; });
}
