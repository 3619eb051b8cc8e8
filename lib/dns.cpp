// Name look-up: the dotted-decimal short cut, the cache, then gethostbyname. Names go to
// the resolver as US-ASCII (codeset identifier 1).
#include "lib/dns.h"

#include <netdb.h>

#include <cstring>
#include <string>

KyDNSCache* KyDNS::cache_ = nullptr;

namespace {

constexpr int kAsciiEncoding = 1;

void FillEntry(const hostent& host, KyDNSCache::HostEntry& entry) {
    entry.code = KyDNS::Ok;
    entry.name = KyUniString(host.h_name);
    entry.aliases.Flush();
    for (char** alias = host.h_aliases; alias && *alias; ++alias)
        entry.aliases.Insert(KyUniString(*alias));
    entry.addresses.Flush();
    if (host.h_addrtype != AF_INET || host.h_length != sizeof(in_addr))
        return;
    for (char** address = host.h_addr_list; address && *address; ++address) {
        in_addr value;
        std::memcpy(&value, *address, sizeof value);
        entry.addresses.Insert(KyInetAddr(&value));
    }
}

} // namespace

int KyDNS::herrortocode(int error) {
    switch (error) {
    case 0:
        return Ok;
    case HOST_NOT_FOUND:
        return HostNotFound;
    case TRY_AGAIN:
        return TryAgain;
    case NO_DATA:
        return NoData;
    default:
        return NoRecovery;
    }
}

int KyDNS::GetAddressList(const KyUniString& name, KyDList<KyInetAddr>& list, bool absolute) {
    KyDNSCache::HostEntry entry;
    const int result = GetHostByName(name, entry, cache_, absolute);
    if (result == Ok)
        list = entry.addresses;
    return result;
}

int KyDNS::GetHostByName(const KyUniString& name, KyDNSCache::HostEntry& entry, KyDNSCache* cache,
                         bool absolute) {
    KyInetAddr literal;
    if (literal.FromString(name, false)) {
        entry.code = Ok;
        entry.name = name;
        entry.aliases.Flush();
        entry.addresses.Flush();
        entry.addresses.Insert(literal);
        return Ok;
    }
    KyUniString query = name;
    if (absolute && (query.Length() == 0 || query.CharAt(query.Length() - 1) != u'.'))
        query += u'.';
    if (cache) {
        cache->CountLookup();
        if (const KyDNSCache::HostEntry* cached = cache->FindByName(query)) {
            entry = *cached;
            return entry.code;
        }
    }
    const KyByteBuffer encoded = query.AsEncoding(kAsciiEncoding);
    const std::string resolverName(encoded.AsStringView());
    const hostent* host = ::gethostbyname(resolverName.c_str());
    if (!host) {
        entry = KyDNSCache::HostEntry();
        entry.code = herrortocode(h_errno);
        if (cache)
            cache->Store(query, entry);
        return entry.code;
    }
    FillEntry(*host, entry);
    if (cache)
        cache->Store(query, entry);
    return Ok;
}
