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

// Holds a configuration directory; the log goes to "boot.log" inside it unless the
// test overrides the log keys. Leaves the global logging as it found it.
class ConfigDir {
public:
    ~ConfigDir() {
        bootLogger.reset();
        std::filesystem::remove(defaultLog(".log"));
        std::filesystem::remove(defaultLog(".jsl"));
    }

    void Write(std::map<std::string, std::string> const& entries) {
        std::string text = "# test configuration\n";
        for (auto const& [key, value] : entries) {
            text += (key.empty() ? "" : prefix) + key + "=" + value + "\n";
        }
        WriteWhole(dir_ / "hostspread.properties", text);
    }
    // A valid value for every key; "@" stands for the directory itself.
    std::map<std::string, std::string> Complete() const {
        std::map<std::string, std::string> entries;
        std::istringstream in(
            "logdirectory=@ logfilter=*/*/*:boot.log port=4000 windowsize=60 samplerate=10 "
            "hostlifetime=100 mincachesize=5 filter=sarFilter probepath=/bin/true "
            "piddirectory=@ maxvirtualmemory=1 maxphysicalmemory=2 multiprocessorfactor=90 "
            "agentport=0 statedirectory=@ allow=10.0.0.0/8 maxhosts=5");
        for (std::string pair; in >> pair;) {
            const auto equals = pair.find('=');
            const std::string value = pair.substr(equals + 1);
            entries[pair.substr(0, equals)] = value == "@" ? dir_.Path() : value;
        }
        return entries;
    }
    std::vector<LogRecord> Log() const { return ParseRecords(ReadLog(dir_ / "boot.log")); }
    static std::string defaultLog(std::string const& extension) {
        return "/tmp/hostgauge" + std::to_string(getpid()) + "_error" + extension;
    }
    LogTempDir const& Dir() const { return dir_; }
    KyUniString Path() const { return KyUniString(dir_.Path()); }

private:
    LogTempDir dir_;
};

TEST(Bootstrap, MissingFileGivesDefaultsAndOneMessageInTmp) {
    ConfigDir config;
    const auto previous = std::filesystem::current_path();
    std::filesystem::current_path(config.Dir().Path());
    Bootstrap boot(".", 4);
    std::filesystem::current_path(previous);

    EXPECT_EQ(boot.getSampleRate(), 30u);
    EXPECT_EQ(boot.getMaxVirtualMem(), 786432u);
    EXPECT_EQ(boot.getNumProcessors(), 4u);
    EXPECT_TRUE(boot.getPidDirectory() == "/tmp");
    const auto log = ParseRecords(ReadLog(ConfigDir::defaultLog(".log")));
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].category, "hostgauge/initialize/error");
    EXPECT_EQ(log[0].text.find("The properties file ./hostspread.properties was not found."), 0u);
}

TEST(Bootstrap, FileWithoutKeysReportsEveryKey) {
    ConfigDir config;
    config.Write({{"unrelated", "x"}});
    Bootstrap boot(config.Path(), 1);
    const auto log = ParseRecords(ReadLog(ConfigDir::defaultLog(".log")));
    ASSERT_EQ(log.size(), 17u) << "one record for each key";
    EXPECT_EQ(log[0].text.find("The attribute " + prefix + "logdirectory does not exist"), 0u);
    EXPECT_NE(log[2].text.find(prefix + "port does not exist in the hostgauge.properties file. "
                                        "The built-in default value 3579 "),
              std::string::npos);
    EXPECT_EQ(boot.getMaxPhysMem(), 262144u);
}

TEST(Bootstrap, BadValuesAreReportedAndReplacedExceptThePidDirectory) {
    ConfigDir config;
    auto entries = config.Complete();
    entries["port"] = "abc";
    entries["hostlifetime"] = "0";
    entries["samplerate"] = "1";
    entries["windowsize"] = "1";
    entries["probepath"] = "/no/such/tool -x";
    entries["piddirectory"] = config.Dir() / "missing";
    entries["maxphysicalmemory"] = "4194305";
    entries["agentport"] = "70000";
    entries["statedirectory"] = config.Dir() / "gone";
    config.Write(entries);
    Bootstrap boot(config.Path(), 1);

    EXPECT_EQ(boot.getPort(), 3579u);
    EXPECT_EQ(boot.getHostLifeTime(), 86400u);
    EXPECT_EQ(boot.getSampleRate(), 5u);
    EXPECT_EQ(boot.getWindowSize(), 3u);
    // The tool beside the running program.
    const std::string tool =
        (std::filesystem::read_symlink("/proc/self/exe").parent_path() / "hostgauge-vmstat -S")
            .string();
    EXPECT_EQ(boot.getProbePath().AsUtf8(), tool);
    EXPECT_TRUE(boot.getPidDirectory() == KyUniString(config.Dir() / "missing"));
    EXPECT_EQ(boot.getMaxVirtualMem(), 1024u);
    EXPECT_EQ(boot.getMaxPhysMem(), 1024u); // 32-bit wrap of 4194305 * 1024
    EXPECT_EQ(boot.getAgentPort(), 0u);
    EXPECT_TRUE(boot.getStateDirectory() == boot.getPidDirectory());
    EXPECT_EQ(boot.getMaxHosts(), 5u);

    // One record per bad value, in the order of the keys' checks, naming the default taken.
    const std::string missing = config.Dir() / "missing", gone = config.Dir() / "gone";
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
    const std::string plain = config.Dir() / "plain";
    WriteWhole(plain, "x");
    auto entries = config.Complete();
    entries["logdirectory"] = plain;
    entries["logfilter"] = "*/*/*:boot%%PID%%.log";
    config.Write(entries);
    Bootstrap boot(config.Path(), 1);
    const std::string tmpLog = "/tmp/boot" + std::to_string(getpid()) + ".log";
    const auto log = ParseRecords(ReadLog(tmpLog));
    std::filesystem::remove(tmpLog);
    ASSERT_EQ(log.size(), 1u);
    EXPECT_NE(log[0].text.find(plain +
                               " does not exist or is not a directory. Using the built-in "
                               "default /tmp for the attribute " +
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

TEST(Bootstrap, SetConfigWritesSettingsBackInTheFileUnits) {
    ConfigDir config;
    config.Write(config.Complete());
    {
        Bootstrap boot(config.Path(), 1);
        EXPECT_TRUE(boot.setPort(4321) && boot.setSampleRateAndWindowSize(5, 10) &&
                    boot.setConfig());
    }
    EXPECT_NE(
        ReadWhole(config.Dir() / "hostspread.properties").find(prefix + "maxphysicalmemory=2\n"),
        std::string::npos);
    Bootstrap again(config.Path(), 1);
    EXPECT_EQ(again.getPort(), 4321u);
    EXPECT_EQ(again.getWindowSize(), 10u);
    EXPECT_TRUE(config.Log().empty());
}

TEST(Bootstrap, EmptyDirectoryLoadsNothingAndSetsUpNoLogging) {
    bootLogger.reset();
    Bootstrap boot("", 2);
    EXPECT_EQ(bootLogger, nullptr);
    EXPECT_EQ(boot.getPort(), 3579u);
    EXPECT_EQ(boot.getNumProcessors(), 2u);
}

} // namespace
