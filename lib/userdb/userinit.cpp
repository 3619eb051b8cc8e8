// Supplementary group look-up. getgrouplist reports the size it needs when the list
// is too short, so the list is sized by asking twice at most.
#include "lib/userdb/userinit.h"

#include <grp.h>
#include <string>

std::vector<gid_t> KyUserGroups(std::string_view name, gid_t primary) {
    std::string key(name);
    std::vector<gid_t> groups(16);
    int count = static_cast<int>(groups.size());
    while (getgrouplist(key.c_str(), primary, groups.data(), &count) < 0) {
        // glibc sets count to the size needed; guard against a library that does not.
        int wanted =
            count > static_cast<int>(groups.size()) ? count : static_cast<int>(groups.size()) * 2;
        if (wanted > 65536)
            return {primary};
        groups.resize(static_cast<std::size_t>(wanted));
        count = wanted;
    }
    groups.resize(static_cast<std::size_t>(count));
    return groups;
}
