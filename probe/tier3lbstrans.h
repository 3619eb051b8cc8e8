// Tier3_LbsTransmission: turns the text of one control request into a command word and
// an ordered attribute list. The tag notation looks like XML but is scanned by hand with
// its own rules (see parseAttribute); a web-style status GET is recognised first.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "lib/unistring.h"
#include "probe/lbsattributes.h"

// Values are indices into the command-word table, plus one for no match.
enum LbsCommand : int {
    LBS_CREATE = 0,
    LBS_KILL = 1,
    LBS_ADMIN = 2,
    LBS_GET = 3,
    LBS_UNKNOWN = 255,
};

class Tier3_LbsTransmission {
public:
    // Attribute names as the interpreter reads them (element names are lower-cased).
    static constexpr const char* KEY_HOST = "host";
    static constexpr const char* KEY_PORT = "port";
    static constexpr const char* KEY_SAMPLERATE = "samplerate";
    static constexpr const char* KEY_WINDOWSIZE = "windowsize";
    static constexpr const char* KEY_ID = "id";
    static constexpr const char* KEY_REPLYFREQUENCY = "replyfreq";
    static constexpr const char* KEY_PERCENTCHANGE = "percentchange";
    static constexpr const char* KEY_VERSION = "version";
    static constexpr const char* KEY_STAT = "stat";
    static constexpr const char* KEY_CVNLBINFO = "cvnlbinfo";
    static constexpr const char* KEY_START = "<";
    static constexpr const char* KEY_END = ">";
    static constexpr const char* KEY_STOP = "/";
    static constexpr const char* QUOTE_OPEN = "\"";
    static constexpr const char* QUOTE_CLOSE = "\"";
    static constexpr const char* GET_STRING = "GET /?get&cvnlbinfo";

    static constexpr const char* SYNTAX_ATTRIBUTE_ERROR = "Syntax error in attribute name";
    static constexpr const char* QUOTE_ERROR = "Quoted value not terminated with a close quote";
    // Kept for the message set; an unquoted value always parses, so it is never produced.
    static constexpr const char* VALUE_ERROR_START = "Syntax error in value [";
    static constexpr const char* VALUE_ERROR_END = "]";

    static constexpr int arraySize = 4;
    static constexpr const char* commandTable[arraySize] = {"CREATE", "KILL", "ADMIN", "GET"};

    // Parses the whole request now; `request` must outlive the transmission.
    explicit Tier3_LbsTransmission(KyUniString& request);
    virtual ~Tier3_LbsTransmission() = default;
    Tier3_LbsTransmission(const Tier3_LbsTransmission&) = delete;
    Tier3_LbsTransmission& operator=(const Tier3_LbsTransmission&) = delete;

    bool isValid() const { return valid_ != 0; }
    LbsCommand getCommand() const { return command_; }
    LbsAttributes& getAttributes() { return attributes_; }
    KyUniString getRawTransmission() const { return raw_; }
    const KyUniString& getError() const { return error_; }
    static KyUniString showCommand(LbsCommand command);

    // Parses one element at the front of `text`: `content` gets its content, the result is
    // the position of the '>' ending its closing tag, or 0 when no element was found.
    int parseAttribute(const KyUniString& text, KyUniString& content);
    // Parses the command word between the scan and end positions of `text`.
    bool parseValue(const KyUniString& text);

private:
    std::size_t parseElement(std::u16string_view text, std::u16string_view& content);
    void scanOpeningTag(std::u16string_view text, std::size_t& contentStart);
    bool closingNameMatches(std::u16string_view name) const;
    void parseCommandWord();
    void parseAttributeList(std::u16string_view content);
    static LbsCommand lookupCommand(const KyUniString& word);

    unsigned char valid_ = 1;
    KyUniString& raw_;
    KyUniString currentTag_;
    KyUniString currentName_;
    KyUniString currentValue_;
    std::int32_t position_ = 0;
    std::int32_t end_ = 0;
    LbsAttributes attributes_;
    KyUniString error_;
    LbsCommand command_ = LBS_UNKNOWN;
};
