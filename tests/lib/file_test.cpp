// Descriptors and errors against the real system: ownership on destruction, the four I/O
// results, error texts of failed calls, and whole-file helpers in a temporary directory.
#include "lib/file.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/lib/logtemp.h"

namespace {

class TempDir : public ::testing::Test {
protected:
    std::string Path(const char* name) const { return dir_ / name; }
    LogTempDir dir_;
};

bool IsOpen(int fd) {
    return ::fcntl(fd, F_GETFD) != -1;
}

// Without a call the reason is only the error; the error is taken from errno when none
// is given.
TEST(UnixError, ReasonTexts) {
    KyUnixError bare;
    bare.Set("", "", ENOENT);
    EXPECT_EQ(bare.Reason(), KyUniString(("(2) " + std::string(std::strerror(ENOENT))).c_str()));
    errno = EPERM;
    KyUnixError captured;
    EXPECT_EQ(captured.Errno(), EPERM);
}

// A descriptor given to a KyFile is borrowed; one it opened goes with its last owner.
TEST(File, OwnershipDecidesWhetherDestructionCloses) {
    { KyFile borrowed(0); }
    EXPECT_TRUE(IsOpen(0));
    int fd = -1;
    {
        KyFile owner(-1);
        ASSERT_EQ(owner.Open("/dev/null", O_RDONLY), Success);
        fd = owner.FileDescriptor();
        KyFile moved(std::move(owner));
        EXPECT_EQ(owner.FileDescriptor(), -1);
        EXPECT_TRUE(IsOpen(fd));
    }
    EXPECT_FALSE(IsOpen(fd));
}

TEST(File, ReadResultsOnAPipe) {
    int pair[2];
    ASSERT_EQ(::pipe(pair), 0);
    KyFile in(pair[0]);
    KyFile out(pair[1]);
    long count = -1;
    char buffer[16] = {};

    ASSERT_EQ(in.SetBlocking(false), Success);
    EXPECT_EQ(in.Read(buffer, sizeof buffer, count), ioPartial);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(out.Write("abcd", 4, count), ioComplete);
    EXPECT_EQ(in.Read(buffer, 2, count), ioComplete);
    EXPECT_EQ(in.Read(buffer, sizeof buffer, count), ioPartial);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(std::string(buffer, 2), "cd");

    ASSERT_EQ(out.Write("xyz", 3, count), ioComplete);
    long available = 0;
    EXPECT_EQ(in.AmountAvailable(available), Success);
    EXPECT_EQ(available, 3);
    ::close(pair[1]);
    EXPECT_EQ(in.Read(buffer, sizeof buffer, count), ioPartial);
    EXPECT_EQ(in.Read(buffer, sizeof buffer, count), ioEndOfFile);
    ::close(pair[0]);

    // The descriptor is gone now: the failure names the call and its arguments.
    EXPECT_EQ(in.Read(buffer, 8, count), ioError);
    EXPECT_EQ(in.ErrorErrno(), EBADF);
    const std::string arguments = in.LastError().Arguments().AsUtf8();
    EXPECT_EQ(arguments.rfind(std::to_string(pair[0]) + ",0x", 0), 0u) << arguments;
    EXPECT_EQ(arguments.substr(arguments.size() - 2), ",8");
    EXPECT_EQ(in.SetBlocking(true), Failure);
    EXPECT_EQ(in.LastError().Arguments().AsUtf8(), std::to_string(pair[0]) + ",F_GETFL");
}

TEST_F(TempDir, OpenErrorTextNamesPathFlagsAndMode) {
    KyFile file;
    const std::string missing = Path("missing");
    EXPECT_EQ(file.Open(missing, O_RDONLY, 0), Failure);
    EXPECT_EQ(file.LastError().Arguments().AsUtf8(), "\"" + missing + "\", RDONLY, 0");
    EXPECT_EQ(file.LastError().Reason().AsUtf8(),
              "open(\"" + missing + "\", RDONLY, 0): (2) " + std::strerror(ENOENT));

    const std::string odd = Path("a\t b/c");
    EXPECT_EQ(file.Open(odd, O_WRONLY | O_CREAT | O_EXCL | O_APPEND, 0640), Failure);
    EXPECT_EQ(file.LastError().Arguments().AsUtf8(),
              "\"" + Path("a\\x09 b/c") + "\", WRONLY | CREAT | EXCL | APPEND, 0640");
}

TEST_F(TempDir, WholeFileHelpersAndPathQueries) {
    const std::string path = Path("data");
    ASSERT_EQ(KyFile::WriteFile(path, KyByteBuffer(std::string_view("line one\n"))), Success);
    // Rewriting truncates, and the file is the owner's only.
    ASSERT_EQ(KyFile::WriteFile(path, KyByteBuffer(std::string_view("x"))), Success);
    struct stat info {};
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    KyByteBuffer read(std::string_view("stale"));
    ASSERT_EQ(KyFile::ReadFile(path, read), Success);
    EXPECT_EQ(read.AsStringView(), "x");
    EXPECT_EQ(KyFile::ReadFile(Path("none"), read), Failure);
    EXPECT_EQ(read.Length(), 0u);
    EXPECT_EQ(KyFile::WriteFile(Path("none/deeper"), read), Failure);

    EXPECT_EQ(KyFile::DoesPathExist(path), True);
    EXPECT_EQ(KyFile::DoesPathExist(Path("none")), False);
    EXPECT_EQ(KyFile::IsDirectory(dir_.Path()), True);
    EXPECT_EQ(KyFile::IsDirectory(path), False);
}

TEST(File, PathRationalising) {
    EXPECT_EQ(KyFile::RationalisePath("/a//b/./c/../d/"), "/a/b/d");
    EXPECT_EQ(KyFile::RationalisePath("/../x"), "/x");
    EXPECT_EQ(KyFile::RationalisePath("a/../../b"), "../b");
    EXPECT_EQ(KyFile::IsSubdir("/var/log", "/var/log/app/../x"), True);
    EXPECT_EQ(KyFile::IsSubdir("/var/log", "/var/logs"), False);
}

} // namespace
