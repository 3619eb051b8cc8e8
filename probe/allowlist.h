// AllowList: the IPv4 networks whose clients may use the control and agent ports and to
// which subscriptions may send datagrams. Built from a comma-separated list of CIDR
// entries ("10.0.0.0/8,192.168.1.7/32"); bad entries are logged and skipped.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "lib/inetaddr.h"
#include "lib/unistring.h"

class AllowList {
public:
    static constexpr std::string_view EVERYONE = "0.0.0.0/0";

    // `key` names the setting in the log records of bad entries.
    AllowList(const KyUniString& entries, const KyUniString& key);

    bool permits(std::uint32_t hostOrder) const;
    bool permits(const KyInetAddr& address) const { return permits(address.AsUint32()); }
    std::size_t size() const { return networks_.size(); }
    bool allowsEveryone() const;

private:
    struct Network {
        std::uint32_t base;
        std::uint32_t mask;
    };
    // False for anything but a dotted quad with a prefix length from 0 to 32.
    static bool parse(std::string_view entry, Network& network);

    std::vector<Network> networks_;
};

// The probe's one allow list, made at start-up; null allows everyone.
extern AllowList* myAllowList;
