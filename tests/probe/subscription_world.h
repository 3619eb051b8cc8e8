// Test scaffolding for the subscription classes: a configuration directory with a log
// file, the probe's process-wide objects built from it as start-up builds them, and a
// loopback UDP receiver standing in for a load balancer.
#pragma once

#include <poll.h>
#include <sys/socket.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "lib/eventloop.h"
#include "lib/socket.h"
#include "probe/bogomips.h"
#include "probe/bootstrap.h"
#include "probe/cache.h"
#include "probe/childmanager.h"
#include "probe/hostlistmgr.h"
#include "probe/logging.h"
#include "probe/responder.h"
#include "tests/lib/logtemp.h"

using Settings = std::map<std::string, std::string>;

// Owns the probe objects for one test and tears the registry down after it.
class SubscriptionWorld {
public:
    // 4 processors timed at 1992099 us for 2^30 turns rate 4312, a recognisable figure.
    static constexpr int BOGO = 4312;

    explicit SubscriptionWorld(Settings const& overrides = {}) {
        Settings settings = {{"logdirectory", dir_.Path()}, {"logfilter", "*/*/*:probe.log"},
                             {"piddirectory", dir_.Path()}, {"probepath", "/bin/sh -c true"},
                             {"samplerate", "5"},           {"windowsize", "10"},
                             {"hostlifetime", "100"},       {"mincachesize", "1"},
                             {"maxvirtualmemory", "2048"},  {"maxphysicalmemory", "1024"}};
        for (auto const& [key, value] : overrides) {
            settings[key] = value;
        }
        std::string text;
        for (auto const& [key, value] : settings) {
            text += "corvane.config.hostspread." + key + "=" + value + "\n";
        }
        WriteWhole(dir_ / "hostspread.properties", text);
        myBootstrap = new Bootstrap(KyUniString(dir_.Path()), 1);
        myCache = new Cache(myBootstrap->getMinCacheSize(), myBootstrap->getMaxVirtualMem(),
                            myBootstrap->getMaxPhysMem());
        myBogomips = new Bogomips(
            4, 100, [](int loops) -> std::clock_t { return loops >= (1 << 30) ? 1992099 : 0; });
        myBogomips->calculate();
        myChildManager = new ChildManager(eventloop, nullptr);
        myResponder = new Responder;
        HostListMgr::init(&eventloop);
    }
    ~SubscriptionWorld() {
        while (!HostListMgr::getHostList().empty()) {
            HostListMgr::removeHost(HostListMgr::getHostList().front()->getId());
        }
        delete myResponder;
        delete myChildManager;
        delete myBogomips;
        delete myCache;
        delete myBootstrap;
        myResponder = nullptr;
        myChildManager = nullptr;
        myBogomips = nullptr;
        myCache = nullptr;
        myBootstrap = nullptr;
        bootLogger.reset();
    }
    SubscriptionWorld(SubscriptionWorld const&) = delete;
    SubscriptionWorld& operator=(SubscriptionWorld const&) = delete;

    std::vector<LogRecord> Log() const { return ParseRecords(ReadWhole(dir_ / "probe.log")); }
    // True when some logged text contains `piece`.
    bool Logged(std::string const& piece) const {
        for (auto const& record : Log()) {
            if (record.text.find(piece) != std::string::npos) {
                return true;
            }
        }
        return false;
    }

private:
    LogTempDir dir_;
};

// A datagram socket on 127.0.0.1 with a kernel-chosen port.
class UdpReceiver {
public:
    UdpReceiver() {
        socket_.Bind(KySocketAddress(KyInetAddr::AddressLoopback()), KySocket::Datagram, false, 0,
                     false);
        KyInetAddr local;
        socket_.LocalAddress(local);
        port_ = local.GetPort();
    }
    unsigned Port() const { return port_; }
    KyInetAddr Address() const {
        KyInetAddr address = KyInetAddr::AddressLoopback();
        address.Port(port_);
        return address;
    }
    // The next datagram's text, or nothing when none arrives within the wait.
    std::optional<std::string> Receive(int waitMs = 2000) {
        pollfd ready{socket_.FileDescriptor(), POLLIN, 0};
        if (::poll(&ready, 1, waitMs) != 1) {
            return std::nullopt;
        }
        char buffer[2048];
        const ssize_t count = ::recv(socket_.FileDescriptor(), buffer, sizeof buffer, 0);
        if (count < 0) {
            return std::nullopt;
        }
        return std::string(buffer, static_cast<std::size_t>(count));
    }

private:
    KySocket socket_;
    unsigned port_ = 0;
};
