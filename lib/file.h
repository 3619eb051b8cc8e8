// KyFile: one Unix file descriptor, owned or borrowed, with descriptor-level I/O that
// reports each transfer as one of four results and keeps the last failure in a
// KyUnixError. Sockets and byte circuits build on it; it also offers whole-file helpers
// and path queries. Descriptor passing lives in lib/fdpass.cpp.
#pragma once

#include <ctime>
#include <string>
#include <string_view>
#include <sys/types.h>

#include "lib/bytebuf.h"
#include "lib/error.h"
#include "lib/numbers.h"
#include "lib/unistring.h"

enum KyIOResult { ioError = 0, ioPartial = 1, ioComplete = 2, ioEndOfFile = 3 };

class KyFile {
public:
    using enum KyIOResult;

    // What RecvFD hands over: the descriptor and the sending process's credentials.
    struct RecvFDInfo {
        int fd = -1;
        uid_t uid = 0;
        gid_t gid = 0;
    };

    // Owns whatever it opens later.
    KyFile();
    // Borrows fd: the object never closes it on destruction. A negative fd gives an
    // owning object without descriptor.
    explicit KyFile(int fd);
    virtual ~KyFile();
    KyFile(const KyFile&) = delete;
    KyFile& operator=(const KyFile&) = delete;
    KyFile(KyFile&& other) noexcept;
    KyFile& operator=(KyFile&& other) noexcept;

    // Closes an owned descriptor (a borrowed one is only let go), opens the path and owns
    // the result.
    KyStatus Open(std::string_view path, int flags, mode_t mode = 0);
    KyStatus Close();

    virtual KyIOResult Read(void* buffer, long length, long& count);
    virtual KyIOResult Write(const void* data, long length, long& count);
    virtual KyIOResult SendFD(int fd);
    virtual KyIOResult RecvFD(RecvFDInfo& info);

    KyStatus SetBlocking(bool blocking);
    KyStatus SetCloseOnExec(bool closeOnExec);
    static KyStatus SetCloseOnExec(int fd, bool closeOnExec);
    // Bytes waiting to be read (FIONREAD).
    KyStatus AmountAvailable(long& count);
    KyStatus FTruncate(off_t length);
    // The new offset, or -1.
    off_t LSeek(off_t offset, int whence);
    KyStatus LockF(int command, off_t length);

    int FileDescriptor() const { return fd_; }
    bool OwnsDescriptor() const { return owns_; }
    int ErrorErrno() const { return lastError_.Errno(); }
    const KyUnixError& LastError() const { return lastError_; }

    // Records an "open" failure with the argument text: "path", FLAGS, 0mode.
    void GenerateOpenError(std::string_view path, int flags, mode_t mode);
    // The path with every byte outside printable ASCII written as \xHH.
    static std::string GeneratePrintableName(std::string_view path);
    static std::string FlagsText(int flags);

    // Whole-file helpers: true only when exactly the whole file / buffer was transferred.
    static KyStatus ReadFile(std::string_view path, KyByteBuffer& buffer);
    static KyStatus WriteFile(std::string_view path, const KyByteBuffer& buffer);

    static KyStatus DoesPathExist(std::string_view path);
    static KyStatus IsDirectory(std::string_view path);
    // -1 when the path cannot be examined.
    static long long Length(std::string_view path);
    static time_t AccessTime(std::string_view path);
    static time_t CreateTime(std::string_view path);
    static time_t ModTime(std::string_view path);
    // Empty when the working directory cannot be read.
    static std::string GetCWD();
    // Folds "//", "." and ".." textually; a relative path stays relative.
    static std::string RationalisePath(std::string_view path);
    // True when child names parent itself or something below it (compared textually).
    static KyStatus IsSubdir(std::string_view parent, std::string_view child);

protected:
    // Derived descriptors (sockets) install what they create; the object then owns it.
    void Adopt(int fd);

    bool owns_;
    KyUnixError lastError_;
    int fd_;

private:
    // Records function with "fd<suffix>" and the saved errno.
    void Record(const char* function, std::string_view suffix, int error);
    KyIOResult Transfer(const char* function, long result, long length, const void* address,
                        long& count);
};
