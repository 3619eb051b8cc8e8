// KyDNSCache: remembered host-name look-ups, positive and negative, by name and by
// address. KyDNS consults it when one is installed; entries may always be expired, and
// the cache expires both tables on every 200th counted look-up.
#pragma once

#include <cstddef>
#include <cstdint>

#include "lib/dictionary.h"
#include "lib/dlist.h"
#include "lib/inetaddr.h"
#include "lib/numbers.h"
#include "lib/unistring.h"

class KyDNSCache {
public:
    struct HostEntry {
        int code = 0;
        KyUniString name;
        KyDList<KyUniString> aliases;
        KyDList<KyInetAddr> addresses;

        KyStatus CanItemBeExpired() const { return True; }
    };

    static constexpr std::size_t HashSize = 4;
    static constexpr std::uint32_t ExpiryInterval = 200;

    explicit KyDNSCache(std::size_t expiryLimit);
    ~KyDNSCache();
    KyDNSCache(const KyDNSCache&) = delete;
    KyDNSCache& operator=(const KyDNSCache&) = delete;

    // Counts one look-up; every ExpiryInterval-th expires both tables.
    void CountLookup();
    const HostEntry* FindByName(const KyUniString& name) const;
    const HostEntry* FindByAddress(const KyInetAddr& address) const;
    // Stores a copy under `name` and, for a positive entry, under each of its addresses.
    void Store(const KyUniString& name, const HostEntry& entry);

    std::size_t NameCount() const { return byName_.Length(); }
    std::size_t AddressCount() const { return byAddress_.Length(); }
    std::uint32_t Lookups() const { return lookups_; }

private:
    using NameItem = KyDIAssocOwnsMemory<KyUniString, HostEntry>;
    using AddressItem = KyDIAssocOwnsMemory<std::uint32_t, HostEntry>;

    KyDictionary<NameItem> byName_;
    KyDictionary<AddressItem> byAddress_;
    std::uint32_t lookups_ = 0;
};
