// The load datagram: an XML text built from the shared reply constants, sent to one host
// as a single UDP write without retry; the next tick sends a fresh one.
#include "probe/responder.h"

#include <ctime>
#include <string>

#include "probe/bogomips.h"
#include "probe/bootstrap.h"
#include "probe/cache.h"
#include "probe/counters.h"
#include "probe/host.h"
#include "probe/messages.h"
#include "probe/parsecommand.h"

Responder* myResponder = nullptr;

namespace {

// The configured maxima are in Kb; packets carry Mb.
constexpr unsigned int KB_TO_MB_SHIFT = 10;

const char* reasonWord(KyIOResult result) {
    switch (result) {
    case ioPartial:
        return "ioPartial";
    case ioEndOfFile:
        return "ioEndOfFile";
    default:
        return "ioError";
    }
}

} // namespace

Responder::Responder() {
    if (socket_.Bind(KySocketAddress(KyInetAddr()), KySocket::Datagram, false, 0, false) !=
        Success) {
        LogResponderBindFailed(socket_.LastError().Reason());
    }
}

void Responder::buildLoadPacket(KyOSStream& text, unsigned int id, std::uint32_t seqno,
                                const StatsPacket& packet, unsigned int statMask) {
    using P = ParseCommand;
    text << P::XMLVERSION << P::CVNLBDATA_START << P::ID_START << id << P::ID_END << P::SEQNO_START
         << seqno << P::SEQNO_END << P::STAT_START;
    if (statMask & Host::CPU) {
        text << P::STAT_IDLE_START << packet.getIdle() << " ";
    }
    if (statMask & Host::BOGO) {
        text << P::STAT_BOGO_START << (myBogomips ? myBogomips->getBestBogo() : 0) << " ";
    }
    if (statMask & Host::VMEM) {
        const unsigned int maxVirtual = myBootstrap ? myBootstrap->getMaxVirtualMem() : 0;
        const unsigned int maxPhysical = myBootstrap ? myBootstrap->getMaxPhysMem() : 0;
        text << P::STAT_VMEM_START << packet.getVirtualMemFree() << " " << P::STAT_MAXVMEM_START
             << (maxVirtual >> KB_TO_MB_SHIFT) << " " << P::STAT_PMEM_START
             << packet.getPhysMemFree() << " " << P::STAT_MAXPMEM_START
             << (maxPhysical >> KB_TO_MB_SHIFT) << " " << P::STAT_SWAPIN_START
             << packet.getSwappedIn() << " " << P::STAT_SWAPOUT_START << packet.getSwappedOut()
             << " ";
    }
    text << P::STAT_END << P::CVNLBDATA_END;
}

KyStatus Responder::sendLoadPacket(unsigned int, const KyUniString&, unsigned int id,
                                   StatsPacket* packet, unsigned int statMask,
                                   const KyInetAddr& address, const KyUniString& hostname) {
    if (packet == nullptr) {
        return Failure;
    }
    KyOSStream text;
    buildLoadPacket(text, id, static_cast<std::uint32_t>(std::time(nullptr)), *packet, statMask);
    return sendPacket(text, address, hostname);
}

KyStatus Responder::sendPacket(KyOSStream& text, const KyInetAddr& address, const KyUniString&) {
    const KyUniString addressText = address.AsString(true);
    // The text is plain ASCII, which the platform's 8-bit encoding keeps byte for byte. The
    // log records take the same bytes, so the text is converted once.
    const std::string bytes = text.Str().AsUtf8();
    long written = 0;
    const KyIOResult result =
        socket_.WriteMessage(bytes.data(), static_cast<long>(bytes.size()), written, address);
    if (result == ioComplete) {
        ++myCounters.datagramsSent;
        LogLoadPacketSent(bytes, addressText);
        return Success;
    }
    ++myCounters.datagramsFailed;
    LogLoadPacketFail(bytes, addressText, KyUniString(reasonWord(result)),
                      socket_.ErrorErrno());
    return Failure;
}
