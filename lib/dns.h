// KyDNS: host-name resolution to IPv4 address lists for the host registry, through the
// system resolver and an optional process-wide KyDNSCache. Dotted-decimal names never
// reach the resolver.
#pragma once

#include "lib/dlist.h"
#include "lib/dnscache.h"
#include "lib/inetaddr.h"
#include "lib/unistring.h"

class KyDNS {
public:
    // Result codes of a look-up.
    enum Result { Ok = 0, HostNotFound = 1, TryAgain = 2, NoRecovery = 3, NoData = 4 };

    // Replaces `list` with the name's addresses when the result is Ok; absolute names get
    // a trailing dot so the resolver does not apply its search list.
    static int GetAddressList(const KyUniString& name, KyDList<KyInetAddr>& list,
                              bool absolute = false);
    static int GetHostByName(const KyUniString& name, KyDNSCache::HostEntry& entry,
                             KyDNSCache* cache, bool absolute);

    // The cache is not owned; none is installed by default.
    static void SetCache(KyDNSCache* cache) { cache_ = cache; }
    static KyDNSCache* GetCache() { return cache_; }

    // Maps the resolver's h_errno to a result code (3 for anything unknown).
    static int herrortocode(int error);

private:
    static KyDNSCache* cache_;
};
