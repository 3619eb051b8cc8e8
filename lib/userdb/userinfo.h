// The password-database side of the user cache: one look-up of a user by name,
// giving the ids that identity switches need. KyUnixUser builds on it.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

struct KyUserInfo {
    std::string name;
    uid_t uid = 0;
    gid_t gid = 0;
};

// Looks the user up with getpwnam_r; nothing when the name is unknown or the look-up fails.
std::optional<KyUserInfo> KyLookUpUser(std::string_view name);
