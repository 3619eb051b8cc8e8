// The look-up cache's two tables. Items own their entry copies, so expiry and
// destruction free them with the item.
#include "lib/dnscache.h"

#include <memory>

KyDNSCache::KyDNSCache(std::size_t expiryLimit)
    : byName_(HashSize, expiryLimit), byAddress_(HashSize, expiryLimit) {}

KyDNSCache::~KyDNSCache() {
    byName_.Flush(true);
    byAddress_.Flush(true);
}

void KyDNSCache::CountLookup() {
    if (++lookups_ % ExpiryInterval != 0)
        return;
    byName_.Expire();
    byAddress_.Expire();
}

const KyDNSCache::HostEntry* KyDNSCache::FindByName(const KyUniString& name) const {
    const NameItem* item = byName_.Find(NameItem(name));
    return item ? item->Value() : nullptr;
}

const KyDNSCache::HostEntry* KyDNSCache::FindByAddress(const KyInetAddr& address) const {
    const AddressItem* item = byAddress_.Find(AddressItem(address.AsUint32()));
    return item ? item->Value() : nullptr;
}

void KyDNSCache::Store(const KyUniString& name, const HostEntry& entry) {
    // A refused insertion (the key is already there) keeps the older item.
    auto named = std::make_unique<NameItem>(name, new HostEntry(entry));
    if (byName_.Insert(named.get()))
        named.release();
    if (entry.code != 0)
        return;
    for (const KyInetAddr& address : entry.addresses) {
        auto item = std::make_unique<AddressItem>(address.AsUint32(), new HostEntry(entry));
        if (byAddress_.Insert(item.get()))
            item.release();
    }
}
