// A Unix user as the process code needs it for identity switches: looked up by name,
// with user id, primary group and supplementary groups.
#pragma once

#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

class KyUnixUser {
public:
    // An invalid user, standing for "no such user".
    KyUnixUser() = default;
    explicit KyUnixUser(std::string_view name);

    bool IsValid() const { return valid_; }
    const std::string& Name() const { return name_; }
    uid_t Uid() const { return uid_; }
    gid_t Gid() const { return gid_; }
    const std::vector<gid_t>& Groups() const { return groups_; }
    // Keeps only the first count groups, for systems that accept fewer than the user has.
    void TruncateGroups(std::size_t count);

private:
    std::string name_;
    bool valid_ = false;
    uid_t uid_ = static_cast<uid_t>(-1);
    gid_t gid_ = static_cast<gid_t>(-1);
    std::vector<gid_t> groups_;
};
