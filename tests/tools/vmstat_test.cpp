// Runs the hostgauge-vmstat program on fixed /proc trees in a temporary directory and checks
// its columns, its line count, its argument handling and its exit on a closed pipe.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

struct Output {
    std::vector<std::string> lines;
    std::string errors;
    int status = -1;
};

// Runs the tool with its stderr in `errors`. `beforeLine(n)` is asked before the n-th line
// is read; false closes the pipe there, so a tool still writing meets a closed reader.
Output RunTool(const std::vector<std::string>& args, const fs::path& errors,
               const std::function<bool(std::size_t)>& beforeLine = {}) {
    std::string command = std::string(HOSTGAUGE_TOOLS_DIR) + "/hostgauge-vmstat";
    for (const auto& arg : args)
        command += " '" + arg + "'";
    FILE* out = popen((command + " 2>'" + errors.string() + "'").c_str(), "r");
    Output output;
    char line[4096];
    while ((!beforeLine || beforeLine(output.lines.size())) && fgets(line, sizeof line, out))
        output.lines.emplace_back(line, strcspn(line, "\n"));
    const int status = pclose(out);
    output.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::ifstream in(errors);
    output.errors.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return output;
}

// A sample line as the daemon's filter reads it: exactly 22 integers.
std::vector<int> Columns(const std::string& line) {
    std::istringstream in(line);
    std::vector<int> values;
    for (int v; in >> v;)
        values.push_back(v);
    EXPECT_TRUE(in.eof()) << line;
    EXPECT_EQ(values.size(), 22u) << line;
    values.resize(22);
    return values;
}

struct Counters {
    long user = 0, nice = 0, system = 0, idle = 0, iowait = 0, irq = 0, softirq = 0, steal = 0;
    long intr = 0, ctxt = 0, swapIn = 0, swapOut = 0, freed = 0;
    std::string diskstats;
};

// A /proc tree of two CPUs whose jiffies at 100 Hz give the elapsed time.
void WriteTree(const fs::path& dir, const Counters& c) {
    fs::create_directories(dir);
    std::ofstream(dir / "stat") << "cpu  " << c.user << ' ' << c.nice << ' ' << c.system << ' '
                                << c.idle << ' ' << c.iowait << ' ' << c.irq << ' ' << c.softirq
                                << ' ' << c.steal << " 0 0\ncpu0 1 2 3\ncpu1 1 2 3\nintr " << c.intr
                                << std::string(12000, ' ') + "0\nctxt " << c.ctxt
                                << "\nprocs_running 3\nprocs_blocked 1\n";
    std::ofstream(dir / "meminfo") << "MemTotal: 900000 kB\nMemFree: 100000 kB\n"
                                      "MemAvailable: 500000 kB\nSwapFree: 250000 kB\n";
    std::ofstream(dir / "vmstat") << "pswpin " << c.swapIn << "\npswpout " << c.swapOut
                                  << "\npgfree " << c.freed
                                  << "\npgscan_kswapd 2000\npgscan_direct 500\npgscan_anon 2000"
                                     "\npgscan_file 500\npgscan_direct_throttle 7\n";
    std::ofstream(dir / "diskstats") << c.diskstats;
}

std::string Disk(const std::string& name, long reads, long writes) {
    return "   8 0 " + name + " " + std::to_string(reads) + " 0 0 0 " + std::to_string(writes) +
           " 0 0 0 0 0 0\n";
}

class VmstatTool : public ::testing::Test {
protected:
    void SetUp() override {
        if (sysconf(_SC_CLK_TCK) != 100 || sysconf(_SC_PAGESIZE) != 4096)
            GTEST_SKIP() << "expected figures assume 100 Hz ticks and 4 KiB pages";
        dir_ = fs::temp_directory_path() / ("vmstat_test." + std::to_string(getpid()));
        fs::remove_all(dir_);
        fs::create_directories(dir_);
        // 10000 jiffies on two CPUs at 100 Hz: 50 seconds since boot.
        base_ = {1000, 200, 300, 7000, 500, 100, 50, 850, 20000, 40000, 1000, 500, 100000, {}};
        base_.diskstats = Disk("loop0", 9, 9) + Disk("sda", 1000, 1500) + Disk("nvme0n1", 500, 0) +
                          Disk("sda1", 9, 9) + Disk("ram0", 9, 9) + Disk("nvme0n1p2", 9, 9);
    }
    void TearDown() override { fs::remove_all(dir_); }

    // The since-boot line of a -S run on a tree of these counters.
    std::vector<int> BootLine(const Counters& c) {
        WriteTree(dir_ / "one", c);
        const auto output = RunTool({"-S", "-P", (dir_ / "one").string()}, errors());
        EXPECT_EQ(output.status, 0) << output.errors;
        return Columns(output.lines.size() == 3 ? output.lines[2] : "");
    }
    fs::path errors() const { return dir_ / "stderr"; }

    fs::path dir_;
    Counters base_;
};

TEST_F(VmstatTool, SinceBootLineAveragesOverTheUptimeAndTakesTheFirstFourWholeDisks) {
    EXPECT_EQ(BootLine(base_),
              Columns("2 1 0 750000 500000 20 10 80 40 8000 0 50 50 10 0 0 400 0 800 12 13 75"));
    base_.diskstats = Disk("ram1", 50, 50) + Disk("sda", 50, 0) + Disk("sdb", 0, 100) +
                      Disk("sda1", 50, 50) + Disk("mmcblk0", 150, 0) + Disk("mmcblk0p1", 5, 5) +
                      Disk("dm-0", 200, 0) + Disk("sdc", 900, 0);
    const auto cols = BootLine(base_);
    EXPECT_EQ((std::vector<int>(cols.begin() + 12, cols.begin() + 16)),
              (std::vector<int>{1, 2, 3, 4}));
}

TEST_F(VmstatTool, IntervalLineUsesDeltasOverTheElapsedJiffies) {
    WriteTree(dir_ / "snap0", base_);
    Counters next = base_;
    // 800 more jiffies: four seconds, whatever the nominal interval.
    next.user += 80, next.system += 40, next.irq += 20, next.softirq += 10, next.steal += 10;
    next.idle += 600, next.iowait += 40;
    next.intr += 2000, next.ctxt += 4000, next.swapIn += 40, next.swapOut += 8;
    next.freed = 10; // a counter that went back reports nothing
    next.diskstats = Disk("sda", 1040, 1520) + Disk("nvme0n1", 504, 0) + Disk("vdb", 7, 1);
    WriteTree(dir_ / "snap1", next);
    fs::create_directory_symlink("snap0", dir_ / "proc");

    const auto output = RunTool({"-P", (dir_ / "proc").string(), "1", "2"}, errors(), [&](auto n) {
        if (n == 3) { // the tool sleeps a second before its next line: the tree moves on
            fs::create_directory_symlink("snap1", dir_ / "proc.new");
            fs::rename(dir_ / "proc.new", dir_ / "proc");
        }
        return true;
    });
    ASSERT_EQ(output.lines.size(), 4u);
    EXPECT_EQ(Columns(output.lines[3]),
              Columns("2 1 0 750000 500000 10 2 40 8 0 0 0 15 1 2 0 500 0 1000 10 10 80"));
    EXPECT_EQ(output.status, 0);
}

TEST_F(VmstatTool, CpuPercentagesSumToHundredWithIdleTakingTheRemainder) {
    struct Case {
        long user, system, idle;
        int us, sy, id;
    } cases[] = {{1, 1, 1, 33, 33, 34}, {101, 99, 0, 51, 49, 0}, {0, 0, 0, 0, 0, 100}};
    for (const auto& c : cases) {
        auto cols = BootLine({c.user, 0, c.system, c.idle, 0, 0, 0, 0, 0, 0, 0, 0, 0, {}});
        EXPECT_EQ((std::vector<int>{cols[19], cols[20], cols[21]}),
                  (std::vector<int>{c.us, c.sy, c.id}))
            << c.user << ' ' << c.system << ' ' << c.idle;
    }
}

// The line count, usage errors, an unreadable tree, and a reader that closes its end after
// one line of an endless run: a quiet exit.
TEST_F(VmstatTool, ArgumentsDecideLinesAndExitStatus) {
    WriteTree(dir_ / "p", base_);
    const std::string tree = (dir_ / "p").string(), none = (dir_ / "none").string();
    struct Case {
        std::vector<std::string> args;
        std::size_t lines;
        int status;
        std::string errors;
    };
    std::vector<Case> cases = {
        {{"-P", tree}, 3, 0, ""},
        {{"-P", tree, "-S", "1", "3"}, 5, 0, ""},
        {{"-P", none, "1", "2"}, 0, 1, "open(" + none + "/stat,O_RDONLY): "},
    };
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"abc"}, {"0"}, {"1", "2", "3"}, {"-x"}, {"2s"}, {"-P"}})
        cases.push_back({args, 0, 2, "usage: hostgauge-vmstat [-S]"});
    for (const auto& c : cases) {
        const auto output = RunTool(c.args, errors());
        EXPECT_EQ(output.lines.size(), c.lines) << c.args.back();
        EXPECT_EQ(output.status, c.status) << c.args.back();
        EXPECT_TRUE(c.errors.empty() ? output.errors.empty()
                                     : output.errors.find(c.errors) != std::string::npos)
            << c.args.back() << ": " << output.errors;
    }
    const auto closed = RunTool({"-P", tree, "1"}, errors(), [](auto n) { return n < 1; });
    EXPECT_EQ(closed.status, 0);
    EXPECT_EQ(closed.errors, "");
}

} // namespace
