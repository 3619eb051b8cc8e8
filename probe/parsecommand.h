// ParseCommand: the interpreter of one control request. It decodes the request's
// %-escapes, parses it, checks the attributes its command needs, carries the command out
// on the host registry and writes the one-line XML reply. The string constants below are
// the protocol's texts, shared with the load packets the responder builds.
#pragma once

#include <array>
#include <cstdint>

#include "lib/stream.h"
#include "lib/unistring.h"
#include "probe/tier3lbstrans.h"

class Host;

class ParseCommand {
public:
    static constexpr const char* MYVERSION = "1.0";
    static constexpr const char* CPU = "cpu";
    static constexpr const char* BOGO = "bogo";
    static constexpr const char* VMEM = "vmem";
    static constexpr const char* XMLVERSION = "<?xml version=\"1.0\"?>";
    static constexpr const char* CREATE_REPLY_START = "<cvnlbreply type=\"create\">";
    static constexpr const char* KILL_REPLY_START = "<cvnlbreply type=\"kill\">";
    static constexpr const char* GET_REPLY_START = "<cvnlbreply type=\"get\">";
    static constexpr const char* ERROR_REPLY_START = "<cvnlbreply type=\"error\">";
    static constexpr const char* ADMIN_REPLY_START = "<cvnlbreply type=\"admin\">";
    static constexpr const char* REPLY_END = "</cvnlbreply>";
    static constexpr const char* VERSION_START = "<version>";
    static constexpr const char* VERSION_END = "</version>";
    static constexpr const char* ERROR_START = "<error>";
    static constexpr const char* ERROR_END = "</error>";
    static constexpr const char* GET = "get /";
    static constexpr const char* ID_START = "<id>";
    static constexpr const char* ID_END = "</id>";
    static constexpr const char* HOST_START = "<host>";
    static constexpr const char* HOST_END = "</host>";
    static constexpr const char* PORT_START = "<port>";
    static constexpr const char* PORT_END = "</port>";
    static constexpr const char* SAMPLERATE_START = "<samplerate>";
    static constexpr const char* SAMPLERATE_END = "</samplerate>";
    static constexpr const char* WINDOWSIZE_START = "<windowsize>";
    static constexpr const char* WINDOWSIZE_END = "</windowsize>";
    static constexpr const char* REPLYFREQUENCY_START = "<replyfrequency>";
    static constexpr const char* REPLYFREQUENCY_END = "</replyfrequency>";
    static constexpr const char* PERCENTCHANGE_START = "<percentchange>";
    static constexpr const char* PERCENTCHANGE_END = "</percentchange>";
    static constexpr const char* CONNECTION_START = "<connection>";
    static constexpr const char* CONNECTION_END = "</connection>";
    static constexpr const char* STAT_START = "<stats>";
    static constexpr const char* STAT_END = "</stats>";
    static constexpr const char* TIME_START = "<time>";
    static constexpr const char* TIME_END = "</time>";
    static constexpr const char* STAT_IDLE_START = "cpu=";
    static constexpr const char* STAT_BOGO_START = "bogo=";
    static constexpr const char* STAT_VMEM_START = "vmem=";
    static constexpr const char* STAT_MAXVMEM_START = "vmax=";
    static constexpr const char* STAT_MAXPMEM_START = "pmax=";
    static constexpr const char* STAT_PMEM_START = "pmem=";
    static constexpr const char* STAT_SWAPIN_START = "sin=";
    static constexpr const char* STAT_SWAPOUT_START = "sout=";
    static constexpr const char* CVNLBDATA_START = "<cvnlbdata>";
    static constexpr const char* CVNLBDATA_END = "</cvnlbdata>";
    static constexpr const char* SEQNO_START = "<seqno>";
    static constexpr const char* SEQNO_END = "</seqno>";
    static constexpr const char* CVNLBKILL_START = "<cvnlbkill>";
    static constexpr const char* CVNLBKILL_END = "</cvnlbkill>";
    static constexpr const char* NOTIMPL = "<not implemented yet>";
    static constexpr const char* NO_UPDATES = "No Updates";
    static constexpr const char* PARSE_ERROR = "Parsing error";
    static constexpr const char* VERSION_ERROR = "Error parsing version; ";
    static constexpr const char* HOST_ERROR = "Error parsing host; ";
    static constexpr const char* PORT_ERROR = "Error parsing port; ";
    static constexpr const char* SAMPLERATE_ERROR = "Error parsing samplerate; ";
    static constexpr const char* WINDOWSIZE_ERROR = "Error parsing windowsize; ";
    static constexpr const char* ID_ERROR = "Error parsing id; ";
    static constexpr const char* REPLYFREQUENCY_ERROR = "Error parsing replyfrequency; ";
    static constexpr const char* PERCENTCHANGE_ERROR = "Error parsing percentchange; ";
    static constexpr const char* STAT_ERROR = "Error parsing stat; ";
    static constexpr const char* CVNLBINFO_ERROR = "Error parsing command";
    static constexpr const char* MAXHOSTS_ERROR = "Host not created: subscription limit reached";
    static constexpr const char* DESTINATION_ERROR = "Host not created: destination not allowed";

    ParseCommand();
    ~ParseCommand() = default;
    ParseCommand(const ParseCommand&) = delete;
    ParseCommand& operator=(const ParseCommand&) = delete;

    // Decodes the escapes in `request` itself; the reply is the returned stream's text.
    KyOSStream& doCommand(KyUniString& request);
    KyOSStream& doCreateHost();
    KyOSStream& doKill();
    KyOSStream& doAdmin();
    KyOSStream& doGetStatus();

private:
    static void decodeEscapes(KyUniString& request);
    // Parses, checks and runs the request, writing the reply.
    void interpret(KyUniString& request);
    void checkVersion(LbsAttributes& attributes, LbsCommand command);
    // Runs every check of the command; false when any failed.
    bool checkAttributes(LbsAttributes& attributes, LbsCommand command);
    bool checkCreate(LbsAttributes& attributes);
    bool checkAdmin(LbsAttributes& attributes);
    // Reads a number; it must be present and, unless zero is allowed, not 0.
    bool readNumber(LbsAttributes& attributes, const char* name, std::uint32_t& value,
                    const char* error, bool zeroAllowed = false);
    KyOSStream& runCommand(LbsCommand command);
    KyOSStream& writeErrorReply(const KyUniString& errorText);
    void writeReplyHead(const char* replyStart);
    void writeConnection(const Host& host);
    unsigned int statMask() const;
    // The reason a CREATE may not go ahead (cap reached, destination outside the allow
    // list), or null.
    const char* createRefusal() const;

    KyOSStream errors_;
    KyOSStream reply_;
    KyUniString host;
    std::uint32_t port = 0;
    std::uint32_t samplerate = 0;
    std::uint32_t windowsize = 0;
    std::uint32_t replyfreq = 0;
    std::uint32_t percentchange = 0;
    std::uint32_t id = 0;
    KyUniString version;
    std::array<KyUniString*, 3> stats_;
};
