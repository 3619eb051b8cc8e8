// Configuration from real properties files: the settings that result, and the exact
// log lines (and their order) that report missing or bad values.
#include <filesystem>
#include <map>
#include <sstream>
#include <unistd.h>

#include <gtest/gtest.h>

#include "probe/bootstrap.h"
#include "probe/logging.h"
#include "tests/lib/logtemp.h"

namespace {

const std::string prefix = "corvane.config.hostspread.";

std::string defaultLog(std::string const& extension) {
    return "/tmp/hostgauge" + std::to_string(getpid()) + "_error" + extension;
}

// A configuration directory; the log goes to "boot.log" inside it unless the test overrides
// the log keys. Leaves the global logging and the default log files as it found them.
struct ConfigDir {
    ~ConfigDir() {
        bootLogger.reset();
        std::filesystem::remove(defaultLog(".log"));
        std::filesystem::remove(defaultLog(".jsl"));
    }
    // Writes a valid value for every key, except those given; "@" is the directory itself.
    void Write(std::map<std::string, std::string> const& changes = {}) const {
        std::istringstream in(
            "logdirectory=@ logfilter=*/*/*:boot.log port=4000 windowsize=60 samplerate=10 "
            "hostlifetime=100 mincachesize=5 filter=sarFilter probepath=/bin/true "
            "piddirectory=@ maxvirtualmemory=1 maxphysicalmemory=2 multiprocessorfactor=90 "
            "agentport=0 statedirectory=@ allow=10.0.0.0/8 maxhosts=5");
        std::string text = "# test configuration\n";
        for (std::string pair; in >> pair;) {
            const std::string key = pair.substr(0, pair.find('='));
            const auto change = changes.find(key);
            const std::string value =
                change == changes.end() ? pair.substr(key.size() + 1) : change->second;
            text += prefix + key + "=" + (value == "@" ? dir.Path() : value) + "\n";
        }
        WriteWhole(dir / "hostspread.properties", text);
    }
    Bootstrap Load() const { return Bootstrap(KyUniString(dir.Path()), 1); }
    std::vector<LogRecord> Log() const { return ParseRecords(ReadLog(dir / "boot.log")); }

    LogTempDir dir;
};

TEST(Bootstrap, MissingFileGivesDefaultsAndOneMessageInTmp) {
    ConfigDir config;
    const auto previous = std::filesystem::current_path();
    std::filesystem::current_path(config.dir.Path());
    Bootstrap boot(".", 4);
    std::filesystem::current_path(previous);

    EXPECT_EQ(boot.getSampleRate(), 30u);
    EXPECT_TRUE(boot.getPidDirectory() == "/tmp");
    const auto log = ParseRecords(ReadLog(defaultLog(".log")));
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].category, "hostgauge/initialize/error");
    EXPECT_EQ(log[0].text.find("The properties file ./hostspread.properties was not found."), 0u);
}

TEST(Bootstrap, FileWithoutKeysReportsEveryKey) {
    ConfigDir config;
    WriteWhole(config.dir / "hostspread.properties", prefix + "unrelated=x\n");
    auto boot = config.Load();
    const auto log = ParseRecords(ReadLog(defaultLog(".log")));
    ASSERT_EQ(log.size(), 17u) << "one record for each key";
    EXPECT_EQ(log[0].text.find("The attribute " + prefix + "logdirectory does not exist"), 0u);
    EXPECT_NE(log[2].text.find(prefix + "port does not exist in the hostgauge.properties file. "
                                        "The built-in default value 3579 "),
              std::string::npos);
    EXPECT_EQ(boot.getMaxPhysMem(), 262144u);
}

TEST(Bootstrap, BadValuesAreReportedAndReplacedExceptThePidDirectory) {
    ConfigDir config;
    const std::string missing = config.dir / "missing", gone = config.dir / "gone";
    config.Write({{"port", "abc"},
                  {"hostlifetime", "0"},
                  {"samplerate", "1"},
                  {"windowsize", "1"},
                  {"probepath", "/no/such/tool -x"},
                  {"piddirectory", missing},
                  {"maxphysicalmemory", "4194305"},
                  {"agentport", "70000"},
                  {"statedirectory", gone}});
    auto boot = config.Load();

    EXPECT_EQ(boot.getPort(), 3579u);
    EXPECT_EQ(boot.getHostLifeTime(), 86400u);
    EXPECT_EQ(boot.getSampleRate(), 5u);
    EXPECT_EQ(boot.getWindowSize(), 3u);
    // The tool beside the running program.
    const std::string tool =
        (std::filesystem::read_symlink("/proc/self/exe").parent_path() / "hostgauge-vmstat -S")
            .string();
    EXPECT_EQ(boot.getProbePath().AsUtf8(), tool);
    EXPECT_TRUE(boot.getPidDirectory() == KyUniString(missing));
    EXPECT_EQ(boot.getMaxVirtualMem(), 1024u);
    EXPECT_EQ(boot.getMaxPhysMem(), 1024u); // 32-bit wrap of 4194305 * 1024
    EXPECT_EQ(boot.getAgentPort(), 0u);
    EXPECT_TRUE(boot.getStateDirectory() == boot.getPidDirectory());

    // One record per bad value, in the order of the keys' checks, naming the default taken.
    const std::vector<std::string> records = {
        prefix + "port has the value 0 which is invalid. The built-in default value 3579 ",
        prefix + "hostlifetime has the value 0",
        "/no/such/tool does not exist. Using the built-in default " + tool +
            " for the\nattribute " + prefix + "probepath.",
        missing + " does not exist or is not a directory. Using the built-in default /tmp for " +
            "the attribute " + prefix + "piddirectory.",
        prefix + "agentport has the value 70000 which is invalid. The built-in default value 0 ",
        gone + " does not exist or is not a directory. Using the built-in default " + missing +
            " for the attribute " + prefix + "statedirectory."};
    const auto log = config.Log();
    ASSERT_EQ(log.size(), records.size());
    for (std::size_t i = 0; i < records.size(); ++i)
        EXPECT_NE(log[i].text.find(records[i]), std::string::npos) << log[i].text;
}

TEST(Bootstrap, LogDirectoryThatIsAFileSendsLogsToTmpAndSaysSoFirst) {
    ConfigDir config;
    const std::string plain = config.dir / "plain";
    WriteWhole(plain, "x");
    config.Write({{"logdirectory", plain}, {"logfilter", "*/*/*:boot%%PID%%.log"}});
    config.Load();
    const std::string tmpLog = "/tmp/boot" + std::to_string(getpid()) + ".log";
    const auto log = ParseRecords(ReadLog(tmpLog));
    std::filesystem::remove(tmpLog);
    ASSERT_EQ(log.size(), 1u);
    EXPECT_NE(log[0].text.find(plain +
                               " does not exist or is not a directory. Using the "
                               "built-in default /tmp for the attribute " +
                               prefix + "logdirectory."),
              std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(plain + "/boot.log"));
}

TEST(Bootstrap, RateAndWindowRule) {
    struct Case {
        unsigned rate, window, wantRate, wantWindow;
    };
    const Case cases[] = {{30, 120, 30, 120}, {2, 10, 5, 10}, {5, 2, 5, 3}, {7, 2, 5, 3},
                          {8, 2, 8, 2},       {1, 1, 5, 3},   {0, 0, 5, 3}, {65536, 65536, 5, 3}};
    for (Case const& c : cases) {
        unsigned rate = c.rate;
        unsigned window = c.window;
        Bootstrap::checkSampleRateAndWindowSize(rate, window);
        EXPECT_EQ(rate, c.wantRate) << c.rate << "," << c.window;
        EXPECT_EQ(window, c.wantWindow) << c.rate << "," << c.window;
    }
}

} // namespace
