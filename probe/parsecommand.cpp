// The command interpreter: escapes, checks and the four commands' replies. Every request
// gets exactly one reply; anything wrong gives the error-shaped reply, with the texts of
// all failed checks in the order the checks run.
#include "probe/parsecommand.h"

#include <array>
#include <string_view>

#include "lib/dlist.h"
#include "lib/dns.h"
#include "probe/adminstate.h"
#include "probe/allowlist.h"
#include "probe/bogomips.h"
#include "probe/bootstrap.h"
#include "probe/cache.h"
#include "probe/childmanager.h"
#include "probe/counters.h"
#include "probe/host.h"
#include "probe/hostlistmgr.h"
#include "probe/messages.h"

namespace {

constexpr int MAX_STATS = 3;
// Code units of a typical connection element and of the report's tail, so that a
// report for thousands of hosts is laid out in one block rather than grown into.
constexpr std::size_t CONNECTION_SIZE_HINT = 288;
constexpr std::size_t NO_UPDATES_SIZE_HINT = 32;

// What the probe itself reads now, for the create reply and the status report.
unsigned int currentIdle() {
    return myCache ? myCache->getLastIdle() : 0;
}
// What a CREATE reply reports: no idle time while the operator keeps the server out.
unsigned int reportedIdle() {
    return myAdminState != nullptr && myAdminState->outOfRotation() ? 0 : currentIdle();
}
unsigned int currentVmemFree() {
    return myCache ? myCache->getLastVmemFree() : 0;
}
long bestBogo() {
    return myBogomips ? myBogomips->getBestBogo() : 0;
}

// One stats element: the items of the mask in the order CPU, BOGO, VMEM.
template <typename Bogo>
void writeStats(KyOSStream& out, unsigned int mask, unsigned int idle, Bogo bogo,
                unsigned int vmem) {
    out << ParseCommand::STAT_START;
    if (mask & Host::CPU) {
        out << ParseCommand::STAT_IDLE_START << idle << " ";
    }
    if (mask & Host::BOGO) {
        out << ParseCommand::STAT_BOGO_START << bogo << " ";
    }
    if (mask & Host::VMEM) {
        out << ParseCommand::STAT_VMEM_START << vmem << " ";
    }
    out << ParseCommand::STAT_END;
}

// Formatted in place: a temporary string per host is what made big reports slow.
void writeTime(KyOSStream& out, const KyTimeVal& when) {
    std::array<char, KyTimeVal::RFC1123Capacity> text;
    out << ParseCommand::TIME_START << when.FormatRFC1123(text) << ParseCommand::TIME_END;
}

void replaceAll(std::u16string& text, std::u16string_view escape, char16_t decoded) {
    std::size_t at = 0;
    while ((at = text.find(escape, at)) != std::u16string::npos) {
        text.replace(at, escape.size(), 1, decoded);
        ++at;
    }
}

} // namespace

ParseCommand::ParseCommand() : version(MYVERSION) {
    stats_.fill(&LbsAttributes::NULLSTRING);
}

void ParseCommand::decodeEscapes(KyUniString& request) {
    std::u16string text(request.View());
    replaceAll(text, u"%20", u' ');
    replaceAll(text, u"%3D", u'=');
    replaceAll(text, u"%3F", u'?');
    replaceAll(text, u"%26", u'&');
    request = KyUniString(std::u16string_view(text));
}

KyOSStream& ParseCommand::doCommand(KyUniString& request) {
    decodeEscapes(request);
    LogCommandText(request);
    interpret(request);
    // They pointed into the transmission, which is gone now.
    stats_.fill(&LbsAttributes::NULLSTRING);
    return reply_;
}

void ParseCommand::interpret(KyUniString& request) {
    Tier3_LbsTransmission transmission(request);
    if (!transmission.isValid()) {
        errors_ << PARSE_ERROR;
        writeErrorReply(errors_.Str());
        return;
    }
    const LbsCommand command = transmission.getCommand();
    LbsAttributes& attributes = transmission.getAttributes();
    checkVersion(attributes, command);
    const bool versionPassed = errors_.View().empty();
    if (!checkAttributes(attributes, command) || !versionPassed) {
        writeErrorReply(errors_.Str());
        return;
    }
    runCommand(command);
}

void ParseCommand::checkVersion(LbsAttributes& attributes, LbsCommand command) {
    const bool present = attributes.getByName(Tier3_LbsTransmission::KEY_VERSION, version);
    const std::uint32_t length = KyUniString(MYVERSION).Length();
    if (present && version.Length() >= length && version.SubString(0, length) == MYVERSION) {
        return;
    }
    if (command != LBS_GET) {
        errors_ << VERSION_ERROR;
        version = MYVERSION;
    }
}

bool ParseCommand::checkAttributes(LbsAttributes& attributes, LbsCommand command) {
    switch (command) {
    case LBS_CREATE:
        return checkCreate(attributes);
    case LBS_KILL:
        return readNumber(attributes, Tier3_LbsTransmission::KEY_ID, id, ID_ERROR);
    case LBS_ADMIN:
        return checkAdmin(attributes);
    case LBS_GET:
        return true;
    default:
        errors_ << Tier3_LbsTransmission::showCommand(command);
        return false;
    }
}

// Every check runs, so a client sees all its mistakes at once.
bool ParseCommand::checkCreate(LbsAttributes& attributes) {
    using T = Tier3_LbsTransmission;
    bool ok = attributes.getByName(T::KEY_HOST, host);
    if (!ok) {
        errors_ << HOST_ERROR;
    }
    ok &= readNumber(attributes, T::KEY_PORT, port, PORT_ERROR);
    ok &= readNumber(attributes, T::KEY_SAMPLERATE, samplerate, SAMPLERATE_ERROR);
    ok &= readNumber(attributes, T::KEY_WINDOWSIZE, windowsize, WINDOWSIZE_ERROR);
    ok &= readNumber(attributes, T::KEY_ID, id, ID_ERROR);
    ok &= readNumber(attributes, T::KEY_REPLYFREQUENCY, replyfreq, REPLYFREQUENCY_ERROR);
    ok &= readNumber(attributes, T::KEY_PERCENTCHANGE, percentchange, PERCENTCHANGE_ERROR, true);
    if (!attributes.getAllByName(T::KEY_STAT, stats_.data(), MAX_STATS)) {
        errors_ << STAT_ERROR;
        ok = false;
    }
    return ok;
}

bool ParseCommand::checkAdmin(LbsAttributes& attributes) {
    using T = Tier3_LbsTransmission;
    bool ok = readNumber(attributes, T::KEY_PORT, port, PORT_ERROR);
    ok &= readNumber(attributes, T::KEY_SAMPLERATE, samplerate, SAMPLERATE_ERROR);
    ok &= readNumber(attributes, T::KEY_WINDOWSIZE, windowsize, WINDOWSIZE_ERROR);
    return ok;
}

bool ParseCommand::readNumber(LbsAttributes& attributes, const char* name, std::uint32_t& value,
                              const char* error, bool zeroAllowed) {
    KyUniString text;
    const bool present = attributes.getByName(name, text);
    value = present ? text.AsUint32() : 0;
    if (present && (zeroAllowed || value != 0)) {
        return true;
    }
    errors_ << error;
    return false;
}

KyOSStream& ParseCommand::runCommand(LbsCommand command) {
    switch (command) {
    case LBS_CREATE:
        ++myCounters.creates;
        return doCreateHost();
    case LBS_KILL:
        ++myCounters.kills;
        return doKill();
    case LBS_ADMIN:
        ++myCounters.admins;
        return doAdmin();
    default:
        ++myCounters.statusQueries;
        return doGetStatus();
    }
}

void ParseCommand::writeReplyHead(const char* replyStart) {
    reply_ << XMLVERSION << replyStart << VERSION_START << version << VERSION_END;
}

KyOSStream& ParseCommand::writeErrorReply(const KyUniString& errorText) {
    ++myCounters.errorReplies;
    writeReplyHead(ERROR_REPLY_START);
    reply_ << ERROR_START << GET << errorText << ERROR_END << REPLY_END;
    return reply_;
}

unsigned int ParseCommand::statMask() const {
    unsigned int mask = 0;
    for (const KyUniString* stat : stats_) {
        if (*stat == CPU) {
            mask |= Host::CPU;
        } else if (*stat == BOGO) {
            mask |= Host::BOGO;
        } else if (*stat == VMEM) {
            mask |= Host::VMEM;
        }
    }
    return mask;
}

KyOSStream& ParseCommand::doCreateHost() {
    const unsigned int mask = statMask();
    if (const char* refusal = createRefusal()) {
        return writeErrorReply(KyUniString(refusal));
    }
    if (HostListMgr::addHost(host, port, samplerate, windowsize, replyfreq, percentchange, id,
                             version, mask) == nullptr) {
        return writeErrorReply(KyUniString("Host not created"));
    }
    writeReplyHead(CREATE_REPLY_START);
    reply_ << ID_START << id << ID_END;
    writeStats(reply_, mask, reportedIdle(), bestBogo(), currentVmemFree());
    reply_ << REPLY_END;
    return reply_;
}

const char* ParseCommand::createRefusal() const {
    const unsigned int cap = myBootstrap ? myBootstrap->getMaxHosts() : Bootstrap::DEFAULT_MAXHOSTS;
    if (HostListMgr::getHostList().size() >= cap) {
        return MAXHOSTS_ERROR;
    }
    if (myAllowList == nullptr || myAllowList->allowsEveryone()) {
        return nullptr;
    }
    // A name that does not resolve is left to the registry, which reports it as before.
    KyDList<KyInetAddr> addresses;
    if (KyDNS::GetAddressList(host, addresses, false) == KyDNS::Ok && !addresses.IsEmpty() &&
        !myAllowList->permits(addresses[0])) {
        return DESTINATION_ERROR;
    }
    return nullptr;
}

KyOSStream& ParseCommand::doKill() {
    if (!HostListMgr::removeHost(id)) {
        KyOSStream text;
        text << "Host with id " << id << " not found";
        return writeErrorReply(text.Str());
    }
    writeReplyHead(KILL_REPLY_START);
    reply_ << ID_START << id << ID_END << REPLY_END;
    return reply_;
}

KyOSStream& ParseCommand::doAdmin() {
    return writeErrorReply(KyUniString("Command not implemented"));
}

// One pass over the registry into the one reply stream: farms hold thousands of hosts.
KyOSStream& ParseCommand::doGetStatus() {
    writeReplyHead(GET_REPLY_START);
    reply_ << PORT_START << (myBootstrap ? myBootstrap->getPort() : 0u) << PORT_END
           << SAMPLERATE_START << (myChildManager ? myChildManager->getSampleRate() : 0u)
           << SAMPLERATE_END << WINDOWSIZE_START
           << (myChildManager ? myChildManager->getWindowSize() : 0u) << WINDOWSIZE_END;
    writeStats(reply_, Host::CPU | Host::BOGO | Host::VMEM, currentIdle(), bestBogo(),
               currentVmemFree());
    writeTime(reply_, myCache ? myCache->getLastTime() : KyTimeVal(0, 0));
    const auto& hosts = HostListMgr::getHostList();
    reply_.Reserve(hosts.size() * CONNECTION_SIZE_HINT + NO_UPDATES_SIZE_HINT);
    for (const auto& entry : hosts) {
        writeConnection(*entry);
    }
    if (hosts.empty()) {
        reply_ << NO_UPDATES;
    }
    reply_ << REPLY_END;
    return reply_;
}

void ParseCommand::writeConnection(const Host& entry) {
    reply_ << CONNECTION_START << ID_START << entry.getId() << ID_END << HOST_START
           << entry.getHostname() << HOST_END << PORT_START << entry.getPort() << PORT_END
           << REPLYFREQUENCY_START << entry.getReplyFrequency() << REPLYFREQUENCY_END
           << PERCENTCHANGE_START << entry.getPercentChange() << PERCENTCHANGE_END
           << SAMPLERATE_START << entry.getSampleRate() << SAMPLERATE_END << WINDOWSIZE_START
           << entry.getWindowSize() << WINDOWSIZE_END;
    writeStats(reply_, entry.getStatMask(), entry.getLastIdle(), entry.getLastBogo(),
               entry.getLastVmemFree());
    writeTime(reply_, entry.getLastTime());
    reply_ << CONNECTION_END;
}
