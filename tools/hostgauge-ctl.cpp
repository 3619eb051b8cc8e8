// hostgauge-ctl: the operator's client for a running hostgauge daemon. It sends the status
// query, subscribe and kill requests on the control port and prints the answers readably
// (or raw with --xml), prints the load datagrams that arrive on a UDP port, sets and shows
// the drain/maintenance state over the local admin socket, and shows the agent port's line.
// Exit status: 0 done, 1 no daemon (or no UDP port), 2 bad arguments, 3 the daemon refused.
#include "lib/dns.h"
#include "lib/error.h"
#include "lib/inetaddr.h"
#include "lib/socket.h"
#include "lib/unistring.h"
#include "tools/ctl_admin.h"
#include "tools/ctl_report.h"
#include "tools/ctl_request.h"

#include <poll.h>
#include <sys/time.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <limits>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr int kExitUnreachable = 1;
constexpr int kExitUsage = 2;
constexpr int kExitRefused = 3;
constexpr int kReplyTimeoutMs = 10000;
constexpr std::uint32_t kMaxPort = 65535;
constexpr std::uint32_t kAgentPort = 3333;
constexpr std::uint32_t kMaxNumber = std::numeric_limits<std::uint32_t>::max();

constexpr std::string_view kUsage =
    "usage: hostgauge-ctl [-H host] [-p port] [-s socket] [--xml] COMMAND\n"
    "\n"
    "commands:\n"
    "  status                 the daemon's readings and one row per subscription\n"
    "  subscribe --host H --port P --id ID [--samplerate MS] [--windowsize N]\n"
    "            [--replyfreq MS] [--percentchange P] [--stat cpu,bogo,vmem]\n"
    "                         send load datagrams to UDP port P on host H\n"
    "                         (defaults: 5000 ms, 3 samples, 30000 ms, 10 %, all stats)\n"
    "  kill ID                cancel the subscription with that id\n"
    "  listen PORT [--count N]\n"
    "                         print each load datagram arriving on UDP port PORT, with\n"
    "                         its time; stop after N datagrams (default: never)\n"
    "  drain                  take this server out of rotation: balancers see it fully\n"
    "                         busy (weight 0, cpu=0); survives daemon restarts\n"
    "  maint                  put this server in maintenance: agent checks see it down\n"
    "  ready                  back into rotation\n"
    "  state                  print ready, drain or maint\n"
    "  agent                  print the line the agent port answers (-p: agent port,\n"
    "                         default 3333)\n"
    "\n"
    "options:\n"
    "  -H host   the daemon's host (default 127.0.0.1)\n"
    "  -p port   the daemon's control port (default 3579), or its agent port for agent\n"
    "  -s path   the daemon's admin socket for drain, maint, ready, state and status\n"
    "            (default: /run/hostgauge/hostgauge.sock, then /tmp/hostgauge.sock)\n"
    "  --xml     print replies and datagrams as the daemon sent them\n"
    "\n"
    "drain, maint, ready and state work only on the daemon's own machine, as its user.\n"
    "\n"
    "exit status: 0 done, 1 daemon not reachable or UDP port not usable, 2 bad arguments,\n"
    "3 request refused by the daemon\n";

struct Options {
    std::string daemonHost = "127.0.0.1";
    std::string adminSocket;
    std::uint32_t daemonPort = 3579;
    bool xml = false;
    bool help = false;
    ctl::Subscription subscription;
    std::uint32_t count = 0; // listen: 0 means until stopped
    std::string command;
    std::vector<std::string_view> operands;
    std::set<std::string_view> given; // the value options that appeared
};

void Say(FILE* to, std::string_view text) {
    std::fprintf(to, "hostgauge-ctl: %.*s\n", static_cast<int>(text.size()), text.data());
}

int UsageError(std::string_view problem) {
    Say(stderr, problem);
    std::fputs(kUsage.data(), stderr);
    return kExitUsage;
}

struct NumberOption {
    std::string_view name;
    std::uint32_t low, high;
    std::uint32_t& (*field)(Options&);
};

// Sample rates under a second would reach the daemon as 0 seconds.
constexpr NumberOption kNumberOptions[] = {
    {"-p", 1, kMaxPort, [](Options& o) -> std::uint32_t& { return o.daemonPort; }},
    {"--port", 1, kMaxPort, [](Options& o) -> std::uint32_t& { return o.subscription.port; }},
    {"--samplerate", 1000, kMaxNumber,
     [](Options& o) -> std::uint32_t& { return o.subscription.sampleRateMs; }},
    {"--windowsize", 1, kMaxNumber,
     [](Options& o) -> std::uint32_t& { return o.subscription.windowSize; }},
    {"--replyfreq", 1, kMaxNumber,
     [](Options& o) -> std::uint32_t& { return o.subscription.replyFreqMs; }},
    {"--percentchange", 0, 100,
     [](Options& o) -> std::uint32_t& { return o.subscription.percentChange; }},
    {"--id", 1, kMaxNumber, [](Options& o) -> std::uint32_t& { return o.subscription.id; }},
    {"--count", 1, kMaxNumber, [](Options& o) -> std::uint32_t& { return o.count; }},
};

// Stores one value option; an empty result means it was taken.
std::string ApplyOption(std::string_view name, std::string_view value, Options& o) {
    const std::string quoted = std::string(name) + " ";
    for (const auto& option : kNumberOptions) {
        if (option.name == name) {
            return ctl::ParseNumber(value, option.low, option.high, option.field(o))
                       ? std::string()
                       : quoted + "needs a number from " + std::to_string(option.low) + " to " +
                             std::to_string(option.high) + ", not '" + std::string(value) + "'";
        }
    }
    if (name == "-s") {
        if (value.empty())
            return quoted + "needs a socket path";
        o.adminSocket = value;
        return {};
    }
    if (name == "-H" || name == "--host") {
        if (!ctl::ValidHostName(value))
            return quoted + "needs a host name or dotted address";
        (name == "-H" ? o.daemonHost : o.subscription.host) = value;
        return {};
    }
    if (name == "--stat")
        return ctl::ParseStats(value, o.subscription.stats)
                   ? std::string()
                   : quoted + "takes cpu, bogo and vmem, separated by commas";
    return "unknown option " + std::string(name);
}

std::string ParseArguments(std::span<char*> args, Options& o) {
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string_view arg = args[i];
        if (arg == "-h" || arg == "--help") {
            o.help = true;
        } else if (arg == "--xml") {
            o.xml = true;
        } else if (arg.size() > 1 && arg.front() == '-') {
            if (i + 1 == args.size())
                return std::string(arg) + " needs a value";
            if (o.given.contains(arg))
                return std::string(arg) + " is given twice";
            if (auto problem = ApplyOption(arg, args[++i], o); !problem.empty())
                return problem;
            o.given.insert(arg);
        } else if (o.command.empty()) {
            o.command = arg;
        } else {
            o.operands.push_back(arg);
        }
    }
    return {};
}

// Each command takes only its own options and operands.
std::string CheckCommand(const Options& o) {
    std::set<std::string_view> allowed{"-H", "-p"};
    std::size_t operands = 0;
    if (o.command == "subscribe") {
        for (const auto* name : {"--host", "--port", "--id"}) {
            if (!o.given.contains(name))
                return std::string("subscribe needs ") + name;
        }
        allowed.insert({"--host", "--port", "--samplerate", "--windowsize", "--replyfreq",
                        "--percentchange", "--id", "--stat"});
    } else if (o.command == "kill" || o.command == "listen") {
        operands = 1;
        if (o.command == "listen")
            allowed.insert("--count");
    } else if (o.command == "drain" || o.command == "maint" || o.command == "ready" ||
               o.command == "state") {
        allowed = {"-s"};
    } else if (o.command == "agent") {
        allowed = {"-H", "-p"};
    } else if (o.command == "status") {
        allowed.insert("-s");
    } else {
        return o.command.empty() ? "no command given" : "unknown command " + o.command;
    }
    for (const auto& name : o.given) {
        if (!allowed.contains(name))
            return std::string(name) + " does not go with " + o.command;
    }
    if (o.operands.size() != operands)
        return o.command + (operands == 0 ? " takes no operands" : " takes one operand");
    return {};
}

KyStatus Resolve(const std::string& host, std::uint32_t port, KyInetAddr& address,
                 std::string& error) {
    const KyUniString name(host);
    if (!address.FromString(name)) {
        KyDList<KyInetAddr> addresses;
        if (KyDNS::GetAddressList(name, addresses) != KyDNS::Ok || addresses.IsEmpty()) {
            error = "cannot find the address of " + host;
            return Failure;
        }
        address = addresses[0];
    }
    address.Port(port);
    return Success;
}

// Waits for the reply's next bytes; a daemon that says nothing is not waited for forever.
KyStatus AwaitInput(const KySocket& socket, std::string& error) {
    pollfd ready{socket.FileDescriptor(), POLLIN, 0};
    const int result = ::poll(&ready, 1, kReplyTimeoutMs);
    if (result > 0)
        return Success;
    if (result == 0) {
        error = "no reply within " + std::to_string(kReplyTimeoutMs / 1000) + " seconds";
    } else {
        KyUnixError failure;
        failure.Set("poll", KyUniString(std::string_view(std::to_string(ready.fd) + ",POLLIN,1," +
                                                         std::to_string(kReplyTimeoutMs))));
        error = failure.Reason().AsUtf8();
    }
    return Failure;
}

KyStatus WriteAll(KySocket& socket, std::string_view data, std::string& error) {
    while (!data.empty()) {
        long written = 0;
        if (socket.Write(data.data(), static_cast<long>(data.size()), written) == ioError) {
            error = "sending the request failed: " + socket.LastError().Reason().AsUtf8();
            return Failure;
        }
        data.remove_prefix(static_cast<std::size_t>(written));
    }
    return Success;
}

// The daemon closes the connection once its reply has left: read up to the end of file.
KyStatus ReadAll(KySocket& socket, std::string& reply, std::string& error) {
    char buffer[8192];
    while (AwaitInput(socket, error)) {
        long count = 0;
        const KyIOResult result = socket.Read(buffer, sizeof buffer, count);
        if (result == ioEndOfFile)
            return Success;
        if (result == ioError) {
            error = "reading the reply failed: " + socket.LastError().Reason().AsUtf8();
            return Failure;
        }
        reply.append(buffer, static_cast<std::size_t>(count));
    }
    return Failure;
}

// One request, one reply, one connection; the message on failure names the daemon.
KyStatus Exchange(const Options& o, std::string_view request, std::string& reply,
                  std::string& error) {
    const std::string where = o.daemonHost + ":" + std::to_string(o.daemonPort);
    KyInetAddr address;
    if (!Resolve(o.daemonHost, o.daemonPort, address, error))
        return Failure;
    KySocket socket;
    if (!socket.Connect(KySocketAddress(address))) {
        error = "cannot reach the hostgauge daemon at " + where +
                " (is it running?): " + socket.LastError().Reason().AsUtf8();
        return Failure;
    }
    if (!WriteAll(socket, request, error) || !ReadAll(socket, reply, error)) {
        error = "talking to the hostgauge daemon at " + where + ": " + error;
        return Failure;
    }
    return Success;
}

// The state goes on the status report's first line. Only a daemon on this machine has an
// admin socket to ask; for another host the state cannot be known from here.
std::string WithState(const Options& o, std::string table) {
    const bool local =
        !o.adminSocket.empty() || o.daemonHost == "127.0.0.1" || o.daemonHost == "localhost";
    std::string answer, error;
    const std::string state = local && ctl::AdminExchange(ctl::AdminSocketCandidates(o.adminSocket),
                                                          "state", answer, error, 2000)
                                  ? answer
                                  : "unknown (no admin socket)";
    const auto end = table.find('\n');
    return table.insert(end == std::string::npos ? table.size() : end, ", state " + state);
}

int PrintReply(const Options& o, std::string_view text, bool status) {
    const ctl::Reply reply = ctl::ReadReply(text);
    if (o.xml) {
        std::printf("%.*s\n", static_cast<int>(text.size()), text.data());
    } else if (!reply.Failed()) {
        const std::string shown =
            status ? WithState(o, ctl::StatusTable(text)) : ctl::DescribeReply(text, reply) + "\n";
        std::fputs(shown.c_str(), stdout);
    }
    if (reply.Failed()) {
        Say(stderr, "the daemon refused the request: " + reply.error);
        return kExitRefused;
    }
    return 0;
}

int Request(const Options& o, std::string_view request, bool status) {
    std::string reply, error;
    if (!Exchange(o, request, reply, error)) {
        Say(stderr, error);
        return kExitUnreachable;
    }
    return PrintReply(o, reply, status);
}

std::string ArrivalStamp() {
    timeval now{};
    ::gettimeofday(&now, nullptr);
    tm local{};
    ::localtime_r(&now.tv_sec, &local);
    char text[64];
    const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    std::snprintf(text + length, sizeof text - length, ".%03ld",
                  static_cast<long>(now.tv_usec / 1000));
    return text;
}

int Listen(const Options& o, std::uint32_t port) {
    KyInetAddr any = KyInetAddr::AddressAny();
    any.Port(port);
    KySocket socket;
    if (!socket.Bind(KySocketAddress(any), KySocket::Datagram, true, 0, false)) {
        Say(stderr, "cannot listen on UDP port " + std::to_string(port) + ": " +
                        socket.LastError().Reason().AsUtf8());
        return kExitUnreachable;
    }
    Say(stderr, "listening for load datagrams on UDP port " + std::to_string(port));
    std::vector<char> buffer(65536);
    for (std::uint32_t seen = 0; o.count == 0 || seen < o.count; ++seen) {
        long count = 0;
        KyInetAddr from;
        if (socket.ReadMessage(buffer.data(), static_cast<long>(buffer.size()), count, from) ==
            ioError) {
            Say(stderr, "receiving failed: " + socket.LastError().Reason().AsUtf8());
            return kExitUnreachable;
        }
        const std::string_view datagram(buffer.data(), static_cast<std::size_t>(count));
        const std::string line =
            o.xml ? std::string(datagram)
                  : ctl::DatagramLine(ArrivalStamp(), from.AsString(true).AsUtf8(), datagram);
        std::printf("%s\n", line.c_str());
        std::fflush(stdout);
    }
    return 0;
}

int Admin(const Options& o) {
    std::string answer, error;
    if (!ctl::AdminExchange(ctl::AdminSocketCandidates(o.adminSocket), o.command, answer, error)) {
        Say(stderr, error);
        return kExitUnreachable;
    }
    if (answer.rfind("error:", 0) == 0) {
        Say(stderr, "the daemon refused the request: " + answer.substr(7));
        return kExitRefused;
    }
    std::printf("%s\n", answer.c_str());
    return 0;
}

// The agent port answers on connect; nothing is sent.
int Agent(Options o) {
    if (!o.given.contains("-p"))
        o.daemonPort = kAgentPort;
    std::string reply, error;
    if (!Exchange(o, "", reply, error)) {
        Say(stderr, error);
        return kExitUnreachable;
    }
    std::fputs(reply.c_str(), stdout);
    return 0;
}

int Run(const Options& o) {
    if (o.command == "drain" || o.command == "maint" || o.command == "ready" ||
        o.command == "state")
        return Admin(o);
    if (o.command == "agent")
        return Agent(o);
    if (o.command == "status")
        return Request(o, ctl::kStatusRequest, true);
    if (o.command == "subscribe") {
        const std::string request = ctl::CreateRequest(o.subscription);
        if (request.size() > ctl::kMaxRequest)
            return UsageError("the host name is too long for one request");
        return Request(o, request, false);
    }
    std::uint32_t number = 0;
    if (o.command == "kill") {
        if (!ctl::ParseNumber(o.operands[0], 1, kMaxNumber, number))
            return UsageError("kill needs a subscription id (a positive number)");
        return Request(o, ctl::KillRequest(number), false);
    }
    if (!ctl::ParseNumber(o.operands[0], 1, kMaxPort, number))
        return UsageError("listen needs a UDP port from 1 to 65535");
    return Listen(o, number);
}

} // namespace

int main(int argc, char** argv) {
    // A daemon that drops the connection is reported, not a reason to die silently.
    std::signal(SIGPIPE, SIG_IGN);
    Options options;
    const std::span<char*> args(argv + 1, static_cast<std::size_t>(argc > 0 ? argc - 1 : 0));
    std::string problem = ParseArguments(args, options);
    if (problem.empty() && options.help) {
        std::fputs(kUsage.data(), stdout);
        return 0;
    }
    if (problem.empty())
        problem = CheckCommand(options);
    if (!problem.empty())
        return UsageError(problem);
    return Run(options);
}
