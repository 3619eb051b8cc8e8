// Rendering of Unix error records and the library's standard-error banners.
#include "lib/error.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

constexpr std::string_view kFatalBanner =
    "\nKeldmoor Vantorel(5.40.966) FATAL ERROR: \nThe program has encountered an error that "
    "means it cannot continue.\nIt will now exit. A technical description is given below to "
    "help\nestablish the cause.\n";
constexpr std::string_view kErrorBanner = "\nKeldmoor Vantorel(5.40.966) ERROR:\n";

void WriteBanner(std::string_view banner, std::string_view description) {
    std::fwrite(banner.data(), 1, banner.size(), stderr);
    std::fwrite(description.data(), 1, description.size(), stderr);
    std::fflush(stderr);
}

} // namespace

KyUnixError::KyUnixError() : errno_(errno) {}

KyUnixError::KyUnixError(const KyUniString& function, const KyUniString& arguments)
    : function_(function), errno_(errno), arguments_(arguments) {}

void KyUnixError::Set(const KyUniString& function, const KyUniString& arguments) {
    Set(function, arguments, errno);
}

void KyUnixError::Set(const KyUniString& function, const KyUniString& arguments, int error) {
    errno_ = error;
    function_ = function;
    arguments_ = arguments;
}

KyUniString KyUnixError::Reason() const {
    std::string text;
    if (function_.Length() != 0 || arguments_.Length() != 0) {
        text = function_.AsUtf8() + "(" + arguments_.AsUtf8() + "): ";
    }
    text += "(" + std::to_string(errno_) + ") " + std::strerror(errno_);
    return KyUniString(std::string_view(text));
}

void KyWriteFatalError(std::string_view description) {
    WriteBanner(kFatalBanner, description);
}

void KyWriteError(std::string_view description) {
    WriteBanner(kErrorBanner, description);
}
