// End-to-end tests of the hostgauge daemon: the real binary runs in a temporary directory
// with its own properties, logs and pid file, and a scripted stand-in for vmstat whose
// output each test chooses. They check the tool's arguments, the cached samples, the stop
// by signal with its exit codes and last log lines, and the clean-up of pid file and tool.
#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <netinet/in.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

const std::string kFakeTool = std::string(HOSTGAUGE_SOURCE_DIR) + "/tests/e2e/fakevmstat.sh";
// Start-up rates the CPU twice, about two processor seconds each; leave room for a busy box.
constexpr auto kStartDeadline = 60s;
constexpr auto kDeadline = 20s;

std::string readFile(const fs::path& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Replaces a file in one step, so a tool run never sees it half written.
void writeFile(const fs::path& path, const std::string& text) {
    const fs::path temporary = path.string() + ".new";
    std::ofstream(temporary) << text;
    fs::rename(temporary, path);
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        result.push_back(line);
    }
    return result;
}

unsigned short freePort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

// A pid counts as gone once it no longer exists or is only a zombie.
bool processGone(pid_t pid) {
    if (::kill(pid, 0) != 0) {
        return true;
    }
    const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
    const auto close = stat.rfind(')');
    return close != std::string::npos && stat.size() > close + 2 && stat[close + 2] == 'Z';
}

template <typename Condition>
bool waitFor(Condition condition, std::chrono::seconds deadline) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

std::string sampleLine(int idle, int swap = 4096, int memory = 2048, int in = 3, int out = 4) {
    std::ostringstream line;
    line << " 0 0 0 " << swap << ' ' << memory << " 0 0 " << in << ' ' << out
         << " 0 0 0 0 0 0 0 100 200 300 1 1 " << idle << '\n';
    return line.str();
}

const std::string kHeadings =
    " kthr      memory            page            disk          faults      cpu\n"
    " r b w   swap  free  re  mf pi po fr de sr s0 -- -- --   in   sy   cs us sy id\n" +
    sampleLine(99, 1, 1, 0, 0);

// One daemon in its own temporary directory, killed if a test leaves it running.
class Daemon {
public:
    Daemon() {
        char pattern[] = "/tmp/hostgauge-e2e-XXXXXX";
        dir_ = ::mkdtemp(pattern);
        properties_ = {
            {"logdirectory", dir_.string()},
            {"piddirectory", dir_.string()},
            {"probepath", kFakeTool + " -S"},
            {"port", std::to_string(freePort())},
            {"samplerate", "5"},
            {"windowsize", "3"},
        };
    }
    ~Daemon() {
        if (pid_ > 0 && status_ < 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        for (const auto& tool : lines(readFile(dir_ / "pids"))) {
            ::kill(std::stoi(tool), SIGKILL);
        }
        fs::remove_all(dir_);
    }

    void set(const std::string& key, const std::string& value) { properties_[key] = value; }
    const fs::path& dir() const { return dir_; }
    pid_t pid() const { return pid_; }

    void start() {
        std::string text;
        for (const auto& [key, value] : properties_) {
            text += "corvane.config.hostspread." + key + "=" + value + "\n";
        }
        writeFile(dir_ / "hostspread.properties", text);
        pid_ = ::fork();
        if (pid_ == 0) {
            ::setenv("FAKEVMSTAT_DIR", dir_.c_str(), 1);
            if (::chdir(dir_.c_str()) == 0 && std::freopen("daemon.out", "w", stdout) &&
                std::freopen("daemon.out", "a", stderr)) {
                ::execl(HOSTGAUGE_BIN, "hostgauge", dir_.c_str(), "1", nullptr);
            }
            std::_Exit(127);
        }
    }

    std::string log() const {
        return readFile(dir_ / ("hostgauge" + std::to_string(pid_) + "_error.log"));
    }
    bool waitForLog(const std::string& text, std::chrono::seconds deadline = kDeadline) const {
        return waitFor([&] { return log().find(text) != std::string::npos; }, deadline);
    }
    // The message texts of the log's records, oldest first.
    std::vector<std::string> messages() const {
        std::vector<std::string> result;
        for (const auto& line : lines(log())) {
            if (line.find("\t (pid ") != std::string::npos &&
                line.find("Keldmoor Vantorel((legacy))") != std::string::npos) {
                result.emplace_back();
            } else if (!result.empty()) {
                result.back() += result.back().empty() ? line : "\n" + line;
            }
        }
        return result;
    }
    std::vector<std::string> toolPids() const { return lines(readFile(dir_ / "pids")); }
    std::vector<std::string> toolArgs() const { return lines(readFile(dir_ / "args")); }
    bool waitForRuns(std::size_t runs, std::chrono::seconds deadline = kDeadline) const {
        return waitFor([&] { return toolPids().size() >= runs; }, deadline);
    }

    // The exit status the daemon ended with, or -1 if it did not end in time.
    int waitExit(std::chrono::seconds deadline = kDeadline) {
        waitFor(
            [&] {
                int status = 0;
                if (::waitpid(pid_, &status, WNOHANG) == pid_) {
                    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
                }
                return status_ >= 0;
            },
            deadline);
        return status_;
    }
    bool running() {
        int status = 0;
        return status_ < 0 && ::waitpid(pid_, &status, WNOHANG) == 0;
    }

private:
    fs::path dir_;
    std::map<std::string, std::string> properties_;
    pid_t pid_ = -1;
    int status_ = -1;
};

// The last two log messages after a stop by the named signal.
void expectStoppedBy(const Daemon& daemon, const std::string& signal, int code) {
    const auto messages = daemon.messages();
    ASSERT_GE(messages.size(), 2u);
    EXPECT_EQ(messages[messages.size() - 2], "The hostgauge was stopped by signal " + signal + ".");
    EXPECT_EQ(messages.back(), "Hostgauge stopped - exitcode " + std::to_string(code) + ".");
}

TEST(DaemonTest, MeasuresUntilSigtermThenCleansUp) {
    Daemon daemon;
    writeFile(daemon.dir() / "output", kHeadings + sampleLine(37) + sampleLine(38, 8192));
    writeFile(daemon.dir() / "linger", "60");
    daemon.start();

    ASSERT_TRUE(daemon.waitForLog("idle=38", kStartDeadline)) << daemon.log();
    const auto messages = daemon.messages();
    EXPECT_NE(std::find(messages.begin(), messages.end(), "Hostgauge started."), messages.end());
    EXPECT_NE(daemon.log().find("The following results have just been cached: idle=37, "
                                "swap=4096, \nphysmemfree=2048, swappedin=3, swappedout=4."),
              std::string::npos);
    EXPECT_EQ(daemon.log().find("idle=99"), std::string::npos) << "the since-boot line is skipped";
    EXPECT_EQ(daemon.toolArgs(), std::vector<std::string>{"[-S][5][4]"});

    const fs::path pidFile = daemon.dir() / "hostgauge.pid";
    EXPECT_EQ(readFile(pidFile), std::to_string(daemon.pid()));
    EXPECT_EQ(fs::status(pidFile).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write);

    ::kill(daemon.pid(), SIGHUP);
    std::this_thread::sleep_for(200ms);
    EXPECT_TRUE(daemon.running()) << "SIGHUP only flushes the logs";

    const pid_t tool = std::stoi(daemon.toolPids().back());
    EXPECT_FALSE(processGone(tool));
    ::kill(daemon.pid(), SIGTERM);
    EXPECT_EQ(daemon.waitExit(), 604 & 0xff);
    expectStoppedBy(daemon, "SIGTERM", 604);
    EXPECT_FALSE(fs::exists(pidFile));
    EXPECT_TRUE(waitFor([&] { return processGone(tool); }, 5s)) << "the tool is killed";
}

TEST(DaemonTest, SigpipeStopsTheDaemonToo) {
    Daemon daemon;
    daemon.start();
    // The pid file is written last, after the signal handling is in place.
    ASSERT_TRUE(
        waitFor([&] { return fs::exists(daemon.dir() / "hostgauge.pid"); }, kStartDeadline));
    ::kill(daemon.pid(), SIGPIPE);
    EXPECT_EQ(daemon.waitExit(), 606 & 0xff);
    expectStoppedBy(daemon, "SIGPIPE", 606);
}

TEST(DaemonTest, UnknownFilterEndsStartUpWithCodeFour) {
    Daemon daemon;
    daemon.set("filter", "VmstatFilter");
    daemon.start();

    EXPECT_EQ(daemon.waitExit(kStartDeadline), 4);
    const auto messages = daemon.messages();
    ASSERT_GE(messages.size(), 3u);
    EXPECT_EQ(messages[messages.size() - 3], "Hostgauge started.");
    EXPECT_EQ(messages[messages.size() - 2].rfind("The filter named VmstatFilter was not "
                                                  "recognised.",
                                                  0),
              0u);
    EXPECT_EQ(messages.back(), "Hostgauge stopped - exitcode 4.");
    EXPECT_TRUE(daemon.toolPids().empty()) << "no tool is started";
    EXPECT_FALSE(fs::exists(daemon.dir() / "hostgauge.pid"));
}

TEST(DaemonTest, SurvivesAToolThatMisbehaves) {
    Daemon daemon;
    daemon.set("probepath", kFakeTool);
    daemon.set("piddirectory", (daemon.dir() / "missing").string());
    writeFile(daemon.dir() / "output", "procs\nmemory\npage\nthis\nis not\nvmstat\noutput\n");
    writeFile(daemon.dir() / "linger", "0.1");
    daemon.start();

    ASSERT_TRUE(daemon.waitForLog("The data returned by " + kFakeTool +
                                      " has not been recognised by the data filter.",
                                  kStartDeadline));
    EXPECT_EQ(daemon.toolArgs().front(), "[5][4]");
    ASSERT_TRUE(daemon.waitForRuns(3));

    fs::remove(daemon.dir() / "output"); // prints nothing
    ASSERT_TRUE(daemon.waitForRuns(daemon.toolPids().size() + 3));

    writeFile(daemon.dir() / "die", ""); // dies at once
    ASSERT_TRUE(daemon.waitForRuns(daemon.toolPids().size() + 3));
    fs::remove(daemon.dir() / "die");

    std::string flood = kHeadings;
    for (int line = 0; line < 3000; ++line) {
        flood += sampleLine(55);
    }
    writeFile(daemon.dir() / "output", flood); // floods the pipe
    EXPECT_TRUE(daemon.waitForLog("idle=55"));
    ASSERT_TRUE(daemon.running());
    EXPECT_FALSE(fs::exists(daemon.dir() / "missing")) << "no pid file, and no complaint";
    // Every tool run is a forked child that logs nothing, so it leaves no log files behind.
    const std::string ours = "hostgauge" + std::to_string(daemon.pid()) + "_error.";
    for (const auto& entry : fs::directory_iterator(daemon.dir())) {
        const std::string name = entry.path().filename().string();
        EXPECT_TRUE(name.find("_error.") == std::string::npos || name.starts_with(ours)) << name;
    }

    ::kill(daemon.pid(), SIGINT);
    EXPECT_EQ(daemon.waitExit(), 603 & 0xff);
    expectStoppedBy(daemon, "SIGINT", 603);
}

} // namespace
