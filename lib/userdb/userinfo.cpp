// Password-database look-ups through the re-entrant interface, so a look-up never
// disturbs a static result another caller still holds.
#include "lib/userdb/userinfo.h"

#include <cerrno>
#include <pwd.h>
#include <unistd.h>
#include <vector>

namespace {

std::size_t InitialBufferSize() {
    long size = sysconf(_SC_GETPW_R_SIZE_MAX);
    return size > 0 ? static_cast<std::size_t>(size) : 1024;
}

} // namespace

std::optional<KyUserInfo> KyLookUpUser(std::string_view name) {
    std::string key(name);
    std::vector<char> buffer(InitialBufferSize());
    passwd entry{};
    passwd* found = nullptr;
    int rc;
    // A database with long entries asks for a bigger buffer; grow until it fits.
    while ((rc = getpwnam_r(key.c_str(), &entry, buffer.data(), buffer.size(), &found)) == ERANGE &&
           buffer.size() < (1u << 20))
        buffer.resize(buffer.size() * 2);
    if (rc != 0 || found == nullptr)
        return std::nullopt;
    return KyUserInfo{found->pw_name, found->pw_uid, found->pw_gid};
}
