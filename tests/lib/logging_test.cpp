// The log framework with real files: how filter terms and their wildcards become
// destinations, how messages are routed to them, the two record formats, and what
// happens to the files after a fork.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <regex>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "lib/logging.h"
#include "lib/match.h"
#include "tests/lib/logtemp.h"

namespace {

class TestLogger : public KyLog {
public:
    const char* const* MessageStrings() const override {
        static constexpr const char* table[] = {"app/net/info", "app/net/error",
                                                "app/disk/fatalerror", "app/twoparts", nullptr};
        return table;
    }
};

TestLogger logger;

void UseFilters(std::string const& directory, std::vector<std::string> const& terms) {
    std::vector<KyUniString> list;
    for (std::string const& term : terms) {
        list.emplace_back(term);
    }
    KyLog::InitLogs(&logger, KyUniString(directory));
    KyLog::SetupJSFilters(std::span<const KyUniString>(list));
}

// The patterns of filter terms.
TEST(WildcardMatch, StarsQuestionMarksAndCase) {
    struct Case {
        const char* pattern;
        const char* text;
        bool caseless;
        bool matches;
    };
    const Case cases[] = {
        {"*", "", false, true},
        {"*error", "fatalerror", false, true},
        {"*error", "errors", false, false},
        {"?nfo", "nfo", false, false},
        {"a*b*c", "axxbyy", false, false},
        {"*a*a*a*b", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa", false, false},
        {"*.jsl", "A.JSL", false, false},
        {"HOSTGAUGE", "hostgauge", true, true},
    };
    for (Case const& c : cases) {
        EXPECT_EQ(KyWildcardMatch(KyUniString(c.pattern), KyUniString(c.text), c.caseless),
                  c.matches)
            << c.pattern << " vs " << c.text;
    }
}

TEST(LogFilters, TermsChooseDestinationsAndMessagesFollowTheirCategories) {
    LogTempDir dir;
    const std::string pid = std::to_string(getpid());
    UseFilters(dir.Path(),
               {"*/*/*:all%%PID%%.log", "APP/NET/*:" + dir / "net.log", "*/*/*error:errors.jsl",
                "no-colon.log", "*/*:two.log", "*/*/*:a:b.log", "*/*/*:.../other/sink",
                "*/*/fatal*:"
                ".../_beans/com.kdm.cvn.server.log.ConsoleSink"});
    testing::internal::CaptureStderr();
    KyLog::JserverLog(0, "first");
    KyLog::JserverLog(1, "second");
    KyLog::JserverLog(2, "third");
    KyLog::JserverLog(3, "never routed");
    KyLog::JserverLog(4, "beyond the table");
    KyLog::Flush();
    const std::string console = testing::internal::GetCapturedStderr();

    using V = std::vector<std::string>;
    EXPECT_EQ(RecordTexts(ReadWhole(dir / ("all" + pid + ".log"))),
              (V{"first", "second", "third"}));
    EXPECT_EQ(RecordTexts(ReadWhole(dir / "net.log")), (V{"first", "second"}));
    const std::string jsl = ReadWhole(dir / "errors.jsl");
    EXPECT_EQ(jsl.find("first"), std::string::npos);
    EXPECT_NE(jsl.find("category=app/net/error"), std::string::npos);
    EXPECT_NE(console.find("third"), std::string::npos);
    EXPECT_EQ(console.find("second"), std::string::npos);

    // Malformed terms and other components' sinks create nothing.
    std::vector<std::string> names;
    for (auto const& entry : std::filesystem::directory_iterator(dir.Path())) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"all" + pid + ".log", "errors.jsl", "net.log"}));
}

TEST(LogRecords, PlainAndStructuredFormats) {
    LogTempDir dir;
    UseFilters(dir.Path(), {"*/*/*:p.log", "*/*/*:s.jsl"});
    KyLog::JserverLog(3, "counted but not written");
    KyLog::JserverLog(0, "a,b=c%\nnext");
    KyLog::JserverLog(0, "again");
    KyLog::Flush();

    const std::string pid = std::to_string(getpid());
    const std::string plain = ReadWhole(dir / "p.log");
    const std::regex plainRecord(
        R"((\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\.\d{3})\t \(pid )" + pid +
        R"(\)\tapp/net/info\t#(\d+)\tKeldmoor Vantorel\(\(legacy\)\)\na,b=c%\nnext\n)");
    std::smatch first;
    ASSERT_TRUE(std::regex_search(plain, first, plainRecord)) << plain;
    const unsigned counter = std::stoul(first[2].str());
    EXPECT_NE(plain.find("\t#" + std::to_string(counter + 1) + "\t"), std::string::npos);

    const std::string structured = ReadWhole(dir / "s.jsl");
    const std::regex jslRecord(R"(category=app/net/info,date=\S+ \S+,pid=)" + pid +
                               R"(,systime=\d+,message=a%2cb%3dc%25%0anext\n)");
    std::smatch line;
    ASSERT_TRUE(std::regex_search(structured, line, jslRecord)) << structured;
    EXPECT_EQ(line.position(0), 0);
    EXPECT_EQ(std::count(structured.begin(), structured.end(), '\n'), 2);
}

// An empty directory means the current one.
TEST(LogFiles, CreatedAtSetUpOwnerOnlyAndCloseOnExec) {
    LogTempDir dir;
    const auto previous = std::filesystem::current_path();
    std::filesystem::current_path(dir.Path());
    UseFilters("", {"*/*/*:r.log", "*/*/fatal*:idle.jsl"});
    std::filesystem::current_path(previous);
    EXPECT_TRUE(std::filesystem::is_empty(dir / "idle.jsl")) << "made at set-up, unused";
    KyLog::JserverLog(0, "a record");
    struct stat info {};
    ASSERT_EQ(stat((dir / "r.log").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    int fd = -1;
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        if (std::filesystem::read_symlink(entry.path(), error) == dir / "r.log") {
            fd = std::stoi(entry.path().filename().string());
        }
    }
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
    UseFilters(dir.Path(), {});
}

// A daemon forks its load tool every run. A child does not write what its parent had
// queued at the fork; its own records go, from the first one on, to its own file.
TEST(LogFiles, ForkedChildrenWriteOnlyTheirOwnRecordsToFilesNamedWithTheirPid) {
    LogTempDir dir;
    UseFilters(dir.Path(), {"*/*/*:f%%PID%%.log"});
    auto file = [&dir](pid_t pid) { return dir / ("f" + std::to_string(pid) + ".log"); };
    KyLog::JserverLog(0, "the parent's, queued at the fork");
    std::fflush(nullptr); // the test's own output is not the child's to repeat
    const pid_t child = fork();
    if (child == 0) {
        KyLog::HaveForked();
        const bool early = std::filesystem::exists(file(getpid()));
        KyLog::JserverLog(0, "the child's, written at exit");
        std::exit(early ? 1 : 0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0) << "a child that has logged nothing has no file";
    EXPECT_NE(ReadWhole(file(child)).find("(pid " + std::to_string(child) + ")"),
              std::string::npos);
    EXPECT_EQ(RecordTexts(ReadWhole(file(child))),
              std::vector<std::string>{"the child's, written at exit"});
    KyLog::Flush();
    EXPECT_EQ(RecordTexts(ReadWhole(file(getpid()))),
              std::vector<std::string>{"the parent's, queued at the fork"});
}

// Records wait in their destination's buffer, in order, until a flush or a full buffer
// writes them; standard error does not wait. (Reopening on SIGHUP runs end to end.)
TEST(LogBuffers, RecordsWaitForAFlushPointAndAreWrittenWholeAndInOrder) {
    LogTempDir dir;
    UseFilters(dir.Path(),
               {"*/*/*:b.log", "*/*/fatal*:.../_beans/com.kdm.cvn.server.log.ConsoleSink"});
    testing::internal::CaptureStderr();
    KyLog::JserverLog(0, "one");
    KyLog::JserverLog(1, "two");
    KyLog::JserverLog(2, "three");
    EXPECT_NE(testing::internal::GetCapturedStderr().find("three"), std::string::npos);
    EXPECT_TRUE(std::filesystem::is_empty(dir / "b.log")) << "nothing written before a flush";
    KyLog::Flush();
    EXPECT_EQ(RecordTexts(ReadWhole(dir / "b.log")),
              (std::vector<std::string>{"one", "two", "three"}));

    // A burst larger than the bound reaches the file in whole records before any flush;
    // what waits stays within the bound (records of about 1070 bytes: at most 62 of them).
    const std::string big(1000, 'x');
    for (int i = 0; i < 200; ++i) {
        KyLog::JserverLog(0, KyUniString(big + std::to_string(i)));
    }
    const auto partial = ParseRecords(ReadWhole(dir / "b.log"));
    EXPECT_GE(partial.size(), 203u - 62u);
    EXPECT_LT(partial.size(), 203u);
    EXPECT_EQ(partial.back().text, big + std::to_string(partial.size() - 4))
        << "the last record on disk is whole";
    KyLog::Flush();
    EXPECT_EQ(ParseRecords(ReadWhole(dir / "b.log")).size(), 203u);
}

} // namespace
