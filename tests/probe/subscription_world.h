// Test scaffolding for the subscription classes: a configuration directory with a log
// file, the probe's process-wide objects built from it as start-up builds them, and a
// loopback UDP receiver standing in for a load balancer.
#pragma once

#include <poll.h>
#include <sys/socket.h>

#include <map>
#include <optional>
#include <string>
#include <utility>

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

class SubscriptionWorld {
public:
    explicit SubscriptionWorld(Settings const& overrides = {}) {
        Settings settings = {{"logdirectory", dir_.Path()}, {"logfilter", "*/*/*:probe.log"},
                             {"samplerate", "5"},           {"windowsize", "10"},
                             {"hostlifetime", "100"},       {"maxvirtualmemory", "2048"},
                             {"maxphysicalmemory", "1024"}};
        for (auto const& [key, value] : overrides)
            settings[key] = value;
        std::string text;
        for (auto const& [key, value] : settings)
            text += "corvane.config.hostspread." + key + "=" + value + "\n";
        WriteWhole(dir_ / "hostspread.properties", text);
        myBootstrap = new Bootstrap(KyUniString(dir_.Path()), 1);
        myCache = new Cache(1, myBootstrap->getMaxVirtualMem(), myBootstrap->getMaxPhysMem());
        // 4 processors timed at 1992099 us for 2^30 turns rate 4312, a recognisable figure.
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
        delete std::exchange(myResponder, nullptr);
        delete std::exchange(myChildManager, nullptr);
        delete std::exchange(myBogomips, nullptr);
        delete std::exchange(myCache, nullptr);
        delete std::exchange(myBootstrap, nullptr);
        bootLogger.reset();
    }
    bool Logged(std::string const& piece) const {
        return ReadLog(dir_ / "probe.log").find(piece) != std::string::npos;
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
        socket_.LocalAddress(address_);
    }
    unsigned Port() const { return address_.GetPort(); }
    // The next datagram's text, or nothing when none arrives within the wait.
    std::optional<std::string> Receive(int waitMs = 2000) {
        pollfd ready{socket_.FileDescriptor(), POLLIN, 0};
        char buffer[2048];
        const ssize_t n = ::poll(&ready, 1, waitMs) == 1 ? ::recv(ready.fd, buffer, 2048, 0) : -1;
        return n < 0 ? std::nullopt : std::optional(std::string(buffer, std::size_t(n)));
    }

private:
    KySocket socket_;
    KyInetAddr address_;
};
