// Error records of the foundation library: KyError is the base every error type derives
// from, KyUnixError the record each library object keeps of its last failing system call
// (function, argument text, errno). Also the two banners with which the library reports
// errors on standard error.
#pragma once

#include <cstdint>
#include <string_view>

#include "lib/unistring.h"

class KyError {
public:
    virtual ~KyError() = default;
    virtual KyUniString Reason() const = 0;
};

class KyUnixError : public KyError {
public:
    // Takes errno as it is now, with empty texts.
    KyUnixError();
    KyUnixError(const KyUniString& function, const KyUniString& arguments);

    // Stores errno and both texts. Callers that do more work before recording (building
    // texts can call into the allocator) save errno first and use the three-argument form.
    void Set(const KyUniString& function, const KyUniString& arguments);
    void Set(const KyUniString& function, const KyUniString& arguments, int error);

    int Errno() const { return errno_; }
    const KyUniString& Function() const { return function_; }
    const KyUniString& Arguments() const { return arguments_; }

    // "function(arguments): (errno) system text"; without function and arguments only
    // "(errno) system text".
    KyUniString Reason() const override;

private:
    KyUniString function_;
    std::int32_t errno_;
    KyUniString arguments_;
};

// Writes the fatal-error banner and then the description to standard error. The caller
// ends the process; the banner tells the reader that it will.
void KyWriteFatalError(std::string_view description);
// Writes the plain error banner and then the description to standard error.
void KyWriteError(std::string_view description);
