// Scaffolding for the end-to-end tests: the real daemon in a temporary directory with its
// own properties and the scripted load tool (tests/e2e/fakevmstat.sh), a one-request
// control client, and a loopback UDP socket standing in for a load balancer.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/lib/logtemp.h"

namespace e2e {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// Start-up rates the CPU before it listens; leave room for a busy machine.
constexpr auto kStartDeadline = 60s;
constexpr auto kDeadline = 20s;

// Replaces a file in one step, so a tool run never sees it half written.
inline void writeFile(const fs::path& path, const std::string& text) {
    const fs::path temporary = path.string() + ".new";
    std::ofstream(temporary) << text;
    fs::rename(temporary, path);
}

inline std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        result.push_back(line);
    return result;
}

inline sockaddr_in loopback(unsigned short port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// A port nobody listens on right now: bound once by the kernel's choice and let go.
inline unsigned short freePort(int type = SOCK_STREAM) {
    const int fd = ::socket(AF_INET, type, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

// A shell command's exit status and its output, stderr included.
struct Outcome {
    int status = -1;
    std::string out;
};
inline Outcome shell(const std::string& command) {
    Outcome outcome;
    FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
    char buffer[4096];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        outcome.out.append(buffer, n);
    const int status = ::pclose(pipe);
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return outcome;
}
inline Outcome ctl(const std::string& arguments) {
    return shell(std::string(HOSTGAUGE_TOOLS_DIR) + "/hostgauge-ctl " + arguments);
}

template <typename Condition>
bool waitFor(Condition condition, std::chrono::seconds deadline = kDeadline) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

// One sample line: twice `free` Kb swap and `free` Kb memory free, 3 swapped in and 4 out.
inline std::string sampleLine(int idle, int free = 2048) {
    return " 0 0 0 " + std::to_string(free * 2) + ' ' + std::to_string(free) +
           " 0 0 3 4 0 0 0 0 0 0 0 100 200 300 1 1 " + std::to_string(idle) + '\n';
}

// A run's output as vmstat -S prints it: two heading lines and the since-boot line that the
// filter skips, then `lines` samples at the given idle.
inline std::string toolRun(int idle, int lines = 3) {
    std::string text =
        " kthr memory page disk faults cpu\n r b w swap free re mf pi po\n" + sampleLine(99, 1);
    for (int i = 0; i < lines; ++i)
        text += sampleLine(idle);
    return text;
}

// A client connection to the daemon's port, or -1; a receive buffer size > 0 is set first.
inline int connectTo(unsigned short port, int receiveBuffer = 0) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (receiveBuffer > 0)
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    const sockaddr_in address = loopback(port);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
        return fd;
    ::close(fd);
    return -1;
}

// What a peer sends until it closes the connection (`closed`; `reset` if it reset it) or
// stays silent for `quiet`. A `pause` after each read makes a slow reader.
struct Received {
    std::string text;
    bool closed = false;
    bool reset = false;
};
inline Received receiveAll(int fd, std::chrono::milliseconds quiet = 5s,
                           std::chrono::milliseconds pause = 0ms) {
    Received received;
    pollfd ready{fd, POLLIN, 0};
    std::vector<char> buffer(32768);
    while (::poll(&ready, 1, int(quiet.count())) == 1) {
        const ssize_t count = ::recv(fd, buffer.data(), buffer.size(), 0);
        if (count <= 0) {
            received.closed = true;
            received.reset = count < 0;
            break;
        }
        received.text.append(buffer.data(), std::size_t(count));
        std::this_thread::sleep_for(pause);
    }
    return received;
}

// Sends the pieces as separate writes and returns everything read until the daemon closes.
// A reset instead of the reply counts as an empty answer.
inline std::string request(unsigned short port, const std::vector<std::string>& pieces) {
    const int fd = connectTo(port);
    if (fd < 0)
        return {};
    for (const auto& piece : pieces) {
        ::send(fd, piece.data(), piece.size(), MSG_NOSIGNAL);
        std::this_thread::sleep_for(pieces.size() > 1 ? 100ms : 0ms);
    }
    std::string reply = receiveAll(fd).text;
    ::close(fd);
    return reply;
}

inline std::string request(unsigned short port, const std::string& text) {
    return request(port, std::vector<std::string>{text});
}

// The daemon's own processor time (user and system) so far.
inline std::chrono::milliseconds cpuTime(pid_t pid) {
    const std::string stat = ReadWhole("/proc/" + std::to_string(pid) + "/stat");
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string field;
    long ticks = 0;
    for (int index = 3; index <= 15 && fields >> field; ++index)
        ticks += index >= 14 ? std::stol(field) : 0;
    return std::chrono::milliseconds(ticks * 1000 / ::sysconf(_SC_CLK_TCK));
}

inline const std::string kStatusRequest = "GET /?get&cvnlbinfo HTTP/1.0\r\n\r\n";

// A subscription for a load balancer on 127.0.0.1 at a 5 s sample rate and a window of 3.
inline std::string createRequest(unsigned id, unsigned short port, unsigned replyMs = 10000,
                                 unsigned percent = 10,
                                 const std::string& stats = "<stat>cpu</stat>") {
    return "<cvnlbreq command=CREATE><version>1.0</version><host>127.0.0.1</host><port>" +
           std::to_string(port) +
           "</port><samplerate>5000</samplerate><windowsize>3</windowsize><id>" +
           std::to_string(id) + "</id><replyfreq>" + std::to_string(replyMs) +
           "</replyfreq><percentchange>" + std::to_string(percent) + "</percentchange>" + stats +
           "</cvnlbreq>";
}

inline std::string killRequest(unsigned id) {
    return "<cvnlbreq command=KILL><version>1.0</version><id>" + std::to_string(id) +
           "</id></cvnlbreq>";
}

// A load balancer's receiving end: a datagram socket on 127.0.0.1.
class Subscriber {
public:
    Subscriber() {
        sockaddr_in address = loopback(0);
        socklen_t length = sizeof address;
        ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address);
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
    }
    ~Subscriber() { ::close(fd_); }
    Subscriber(const Subscriber&) = delete;
    Subscriber& operator=(const Subscriber&) = delete;
    unsigned short port() const { return port_; }
    // The next datagram, or nothing when none arrives in time.
    std::optional<std::string> receive(std::chrono::milliseconds wait) {
        pollfd ready{fd_, POLLIN, 0};
        char buffer[2048];
        const ssize_t count =
            ::poll(&ready, 1, int(wait.count())) == 1 ? ::recv(fd_, buffer, sizeof buffer, 0) : -1;
        return count < 0 ? std::nullopt : std::optional(std::string(buffer, std::size_t(count)));
    }

private:
    const int fd_ = ::socket(AF_INET, SOCK_DGRAM, 0);
    unsigned short port_ = 0;
};

// One daemon in its own temporary directory, killed with its tool runs if a test leaves it.
class Daemon {
public:
    Daemon() {
        char pattern[] = "/tmp/hostgauge-sub-XXXXXX";
        dir_ = ::mkdtemp(pattern);
        properties_ = {
            {"logdirectory", dir_.string()},
            {"piddirectory", dir_.string()},
            {"probepath", std::string(HOSTGAUGE_SOURCE_DIR) + "/tests/e2e/fakevmstat.sh -S"},
            {"port", std::to_string(port_)},
            {"samplerate", "5"},
            {"windowsize", "3"},
            {"maxvirtualmemory", "8192"},
            {"maxphysicalmemory", "4096"},
        };
        // A rating try of 20 ms instead of a second: the daemon starts in a moment.
        environment_ = {
            {"FAKEVMSTAT_DIR", dir_.string()}, {"TZ", "UTC"}, {"HOSTGAUGE_RATING_MS", "20"}};
        writeFile(dir_ / "linger", "0.2");
    }
    ~Daemon() {
        if (pid_ > 0 && status_ < 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        for (const auto& tool : toolPids())
            ::kill(std::stoi(tool), SIGKILL);
        fs::remove_all(dir_);
    }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    void set(const std::string& key, const std::string& value) { properties_[key] = value; }
    void setEnv(const std::string& name, const std::string& value) { environment_[name] = value; }
    // The most descriptors the daemon may hold open (0: no limit of the test's own).
    void limitDescriptors(rlim_t count) { descriptorLimit_ = count; }
    const fs::path& dir() const { return dir_; }
    unsigned short port() const { return port_; }
    pid_t pid() const { return pid_; }
    // What the next tool runs print.
    void toolPrints(const std::string& text) const { writeFile(dir_ / "output", text); }

    void start() {
        std::string text;
        for (const auto& [key, value] : properties_)
            text += "corvane.config.hostspread." + key + "=" + value + "\n";
        writeFile(dir_ / "hostspread.properties", text);
        status_ = -1; // a restart: the new process is the one to wait for
        pid_ = ::fork();
        if (pid_ != 0)
            return;
        for (const auto& [name, value] : environment_)
            ::setenv(name.c_str(), value.c_str(), 1);
        const rlimit files{descriptorLimit_, descriptorLimit_};
        if ((descriptorLimit_ == 0 || ::setrlimit(RLIMIT_NOFILE, &files) == 0) &&
            ::chdir(dir_.c_str()) == 0 && std::freopen("daemon.out", "w", stdout) &&
            std::freopen("daemon.out", "a", stderr))
            ::execl(HOSTGAUGE_BIN, "hostgauge", dir_.c_str(), "1", nullptr);
        std::_Exit(127);
    }
    // Start-up is over once the pid file is there.
    bool startServing() {
        start();
        return waitFor([&] { return fs::exists(dir_ / "hostgauge.pid"); }, kStartDeadline);
    }

    std::string log() const {
        return ReadWhole(dir_ / ("hostgauge" + std::to_string(pid_) + "_error.log"));
    }
    bool waitForLog(const std::string& text, std::chrono::seconds deadline = kDeadline) const {
        return waitFor([&] { return log().find(text) != std::string::npos; }, deadline);
    }
    // The message texts of the log's records, oldest first.
    std::vector<std::string> messages() const { return RecordTexts(log()); }
    std::vector<std::string> toolArgs() const { return lines(ReadWhole(dir_ / "args")); }
    std::vector<std::string> toolPids() const { return lines(ReadWhole(dir_ / "pids")); }
    // Subscribes a balancer on 127.0.0.1 at port `to`; whether the daemon took it.
    bool subscribe(unsigned id, unsigned short to, unsigned replyMs = 10000,
                   unsigned percent = 10) const {
        return request(port_, createRequest(id, to, replyMs, percent)).find("type=\"create\"") !=
               std::string::npos;
    }
    bool waitForRuns(std::size_t runs) const {
        return waitFor([&] { return toolPids().size() >= runs; });
    }

    // The exit status (8 bits, as the shell sees it), or -1 if it did not end in time.
    int waitExit(std::chrono::seconds deadline = kDeadline) {
        waitFor(
            [&] {
                int status = 0;
                if (::waitpid(pid_, &status, WNOHANG) == pid_)
                    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
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
    unsigned short port_ = freePort();
    std::map<std::string, std::string> properties_;
    std::map<std::string, std::string> environment_;
    pid_t pid_ = -1;
    int status_ = -1;
    rlim_t descriptorLimit_ = 0;
};

} // namespace e2e
