// KyUnixUser: combines the password entry and the group list of one user.
#include "lib/userdb/user.h"

#include "lib/userdb/userinfo.h"
#include "lib/userdb/userinit.h"

KyUnixUser::KyUnixUser(std::string_view name) : name_(name) {
    auto info = KyLookUpUser(name);
    if (!info)
        return;
    valid_ = true;
    uid_ = info->uid;
    gid_ = info->gid;
    groups_ = KyUserGroups(info->name, info->gid);
}

void KyUnixUser::TruncateGroups(std::size_t count) {
    if (count < groups_.size())
        groups_.resize(count);
}
