// The group-database side of the user cache: the supplementary groups a user gets at
// log-in, which identity switches install with setgroups.
#pragma once

#include <string_view>
#include <sys/types.h>
#include <vector>

// The user's groups as getgrouplist gives them, the primary group included.
std::vector<gid_t> KyUserGroups(std::string_view name, gid_t primary);
