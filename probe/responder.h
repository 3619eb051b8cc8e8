// Responder: the sender of load packets. It owns the probe's one datagram socket, builds
// the XML load datagram for a subscribed host from an averaged sample and sends it; the
// host registry calls it on every reply tick and every percent-change event.
#pragma once

#include <cstdint>

#include "lib/inetaddr.h"
#include "lib/numbers.h"
#include "lib/socket.h"
#include "lib/stream.h"
#include "lib/unistring.h"

class StatsPacket;

class Responder {
public:
    // Binds the socket to the wildcard address; a failed bind is logged and not fatal.
    Responder();
    Responder(const Responder&) = delete;
    Responder& operator=(const Responder&) = delete;

    // The timestamp and version are accepted for the callers' sake but not used: the
    // sequence number is read from the clock while the text is built.
    KyStatus sendLoadPacket(unsigned int timestamp, const KyUniString& version, unsigned int id,
                            StatsPacket* packet, unsigned int statMask, const KyInetAddr& address,
                            const KyUniString& hostname);
    KyStatus sendPacket(KyOSStream& text, const KyInetAddr& address, const KyUniString& hostname);

    // Writes the datagram text for the given sequence number into `text`.
    static void buildLoadPacket(KyOSStream& text, unsigned int id, std::uint32_t seqno,
                                const StatsPacket& packet, unsigned int statMask);

private:
    KySocket socket_;
};

// The probe's one responder, made at start-up.
extern Responder* myResponder;
