// Runs the hostgauge-vmstat program on fixed /proc trees in a temporary directory and checks
// its columns, its line count, its argument handling and its exit on a closed pipe.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

const std::string kTool = std::string(HOSTGAUGE_TOOLS_DIR) + "/hostgauge-vmstat";

// The tool run through the shell with its stdout on a pipe and its stderr in a file.
class Tool {
public:
    Tool(const std::vector<std::string>& args, const fs::path& errors) : errors_(errors) {
        std::string command = kTool;
        for (const auto& arg : args)
            command += " '" + arg + "'";
        out_ = popen((command + " 2>'" + errors.string() + "'").c_str(), "r");
    }
    ~Tool() {
        if (out_)
            pclose(out_);
    }
    std::string ReadLine() {
        char line[4096];
        return fgets(line, sizeof line, out_) ? std::string(line, strcspn(line, "\n")) : "";
    }
    std::string ReadAll() {
        std::string text;
        for (int c; (c = fgetc(out_)) != EOF;)
            text += static_cast<char>(c);
        return text;
    }
    std::string Errors() const {
        std::ifstream in(errors_);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }
    // Closes the pipe first, so a tool still writing meets a closed reader.
    int Wait() {
        const int status = pclose(out_);
        out_ = nullptr;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    fs::path errors_;
    FILE* out_ = nullptr;
};

std::vector<int> Ints(const std::string& text) {
    std::istringstream in(text);
    std::vector<int> values;
    for (int v; in >> v;)
        values.push_back(v);
    EXPECT_TRUE(in.eof()) << text;
    return values;
}

// Reads a sample line the way the daemon's filter does: exactly 22 integers.
std::vector<int> Columns(const std::string& line) {
    auto cols = Ints(line);
    EXPECT_EQ(cols.size(), 22u) << line;
    cols.resize(22);
    return cols;
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

    std::vector<int> BootLine(const Counters& c) {
        WriteTree(dir_ / "one", c);
        Tool tool({"-S", "-P", (dir_ / "one").string()}, Errors());
        tool.ReadLine(), tool.ReadLine();
        auto cols = Columns(tool.ReadLine());
        EXPECT_EQ(tool.Wait(), 0) << tool.Errors();
        return cols;
    }

    fs::path Errors() const { return dir_ / "stderr"; }

    fs::path dir_;
    Counters base_;
};

TEST_F(VmstatTool, SinceBootLineAveragesOverTheUptime) {
    EXPECT_EQ(BootLine(base_),
              Ints("2 1 0 750000 500000 20 10 80 40 8000 0 50 50 10 0 0 400 0 800 12 13 75"));
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

    Tool tool({"-P", (dir_ / "proc").string(), "1", "2"}, Errors());
    for (int i = 0; i < 3; ++i)
        tool.ReadLine();
    fs::create_directory_symlink("snap1", dir_ / "proc.new");
    fs::rename(dir_ / "proc.new", dir_ / "proc");
    auto cols = Columns(tool.ReadLine());
    EXPECT_EQ(cols, Ints("2 1 0 750000 500000 10 2 40 8 0 0 0 15 1 2 0 500 0 1000 10 10 80"));
    EXPECT_EQ(tool.ReadAll(), "");
    EXPECT_EQ(tool.Wait(), 0);
}

TEST_F(VmstatTool, CpuPercentagesSumToHundredWithIdleTakingTheRemainder) {
    struct Case {
        long user, system, idle;
        int us, sy, id;
    } cases[] = {
        {1, 1, 1, 33, 33, 34}, {101, 99, 0, 51, 49, 0}, {995, 5, 0, 100, 0, 0},
        {0, 0, 0, 0, 0, 100},  {0, 0, 7, 0, 0, 100},    {3, 1, 196, 2, 1, 97},
    };
    for (const auto& c : cases) {
        auto cols = BootLine({c.user, 0, c.system, c.idle, 0, 0, 0, 0, 0, 0, 0, 0, 0, {}});
        EXPECT_EQ((std::vector<int>{cols[19], cols[20], cols[21]}),
                  (std::vector<int>{c.us, c.sy, c.id}))
            << c.user << ' ' << c.system << ' ' << c.idle;
    }
}

TEST_F(VmstatTool, DiskColumnsTakeTheFirstFourWholeDisks) {
    base_.diskstats = Disk("ram1", 50, 50) + Disk("sda", 50, 0) + Disk("sdb", 0, 100) +
                      Disk("sda1", 50, 50) + Disk("mmcblk0", 150, 0) + Disk("mmcblk0p1", 5, 5) +
                      Disk("dm-0", 200, 0) + Disk("sdc", 900, 0);
    auto cols = BootLine(base_);
    EXPECT_EQ((std::vector<int>(cols.begin() + 12, cols.begin() + 16)),
              (std::vector<int>{1, 2, 3, 4}));
}

TEST_F(VmstatTool, CountGivesThatManyLinesThenExitsCleanly) {
    WriteTree(dir_ / "p", base_);
    for (auto [args, lines] : {std::pair<std::vector<std::string>, int>{{}, 3},
                               {{"1", "1"}, 3},
                               {{"-S", "1", "3"}, 5}}) {
        args.insert(args.begin(), {"-P", (dir_ / "p").string()});
        Tool tool(args, Errors());
        auto out = tool.ReadAll();
        EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), lines) << out;
        EXPECT_EQ(tool.Errors(), "");
        EXPECT_EQ(tool.Wait(), 0);
    }
}

TEST_F(VmstatTool, BadArgumentsGiveUsageAndStatusTwo) {
    for (auto args : std::vector<std::vector<std::string>>{
             {"abc"}, {"0"}, {"1", "0"}, {"1", "2", "3"}, {"-x"}, {"-1"}, {"2s"}, {"-P"}}) {
        Tool tool(args, Errors());
        EXPECT_EQ(tool.ReadAll(), "");
        EXPECT_EQ(tool.Errors().rfind("usage: hostgauge-vmstat [-S]", 0), 0u) << args[0];
        EXPECT_EQ(tool.Wait(), 2) << args[0];
    }
}

TEST_F(VmstatTool, UnreadableTreeIsReportedWithTheFailingCall) {
    Tool tool({"-P", (dir_ / "none").string(), "1", "2"}, Errors());
    EXPECT_EQ(tool.ReadAll(), "");
    EXPECT_NE(tool.Errors().find("open(" + (dir_ / "none/stat").string() + ",O_RDONLY): "),
              std::string::npos);
    EXPECT_EQ(tool.Wait(), 1);
}

TEST_F(VmstatTool, ClosedPipeEndsItQuietly) {
    WriteTree(dir_ / "p", base_);
    Tool tool({"-P", (dir_ / "p").string(), "1"}, Errors());
    EXPECT_FALSE(tool.ReadLine().empty());
    EXPECT_EQ(tool.Wait(), 0);
    EXPECT_EQ(tool.Errors(), "");
}

} // namespace
