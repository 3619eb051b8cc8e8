// The hand scanner for control requests. Only three characters steer the opening-tag
// scan ('<', ' ', '>'); closing tags are found by name, so nested elements of other names
// are passed over. Element content is kept exactly as sent.
#include "probe/tier3lbstrans.h"

#include "probe/messages.h"

namespace {

constexpr std::u16string_view kStatusForm = u"GET /?get&cvnlbinfo";
constexpr std::u16string_view kRequestElement = u"cvnlbreq";

KyUniString LowerCased(std::u16string_view text) {
    KyUniString result(text);
    result.LowerCase();
    return result;
}

} // namespace

Tier3_LbsTransmission::Tier3_LbsTransmission(KyUniString& request) : raw_(request) {
    const std::u16string_view text = request.View();
    if (text.find(kStatusForm) != std::u16string_view::npos) {
        command_ = lookupCommand(KyUniString("GET"));
        return;
    }
    std::u16string_view content;
    parseElement(text, content);
    // A missing closing tag still leaves the opening tag to take the command from.
    if (currentName_.View() != kRequestElement)
        return;
    parseCommandWord();
    parseAttributeList(content);
}

KyUniString Tier3_LbsTransmission::showCommand(LbsCommand command) {
    const int index = command;
    if (index >= 0 && index < arraySize)
        return KyUniString(commandTable[index]);
    return KyUniString("UNKNOWN");
}

int Tier3_LbsTransmission::parseAttribute(const KyUniString& text, KyUniString& content) {
    std::u16string_view found;
    const std::size_t end = parseElement(text.View(), found);
    content = KyUniString(found);
    return static_cast<int>(end);
}

bool Tier3_LbsTransmission::parseValue(const KyUniString& text) {
    if (position_ < end_ && text.CharAt(position_) == u'"') {
        const int close = text.SearchFrom(position_ + 1, u'"');
        if (close == KyUniString::NotFound || close >= end_) {
            error_ = QUOTE_ERROR;
            return false;
        }
        currentValue_ = text.SubString(position_ + 1, close - position_ - 1);
        return true;
    }
    currentValue_ = position_ < end_ ? text.SubString(position_, end_ - position_) : KyUniString();
    return true;
}

void Tier3_LbsTransmission::parseCommandWord() {
    // No '=' leaves the search result of -1, so the value is then the whole tag text.
    position_ = currentTag_.Search(u'=') + 1;
    end_ = static_cast<std::int32_t>(currentTag_.Length());
    parseValue(currentTag_);
    KyUniString word = currentValue_;
    word.UpperCase();
    command_ = lookupCommand(word);
}

void Tier3_LbsTransmission::parseAttributeList(std::u16string_view content) {
    while (!content.empty()) {
        std::u16string_view value;
        const std::size_t end = parseElement(content, value);
        if (end == 0)
            return;
        attributes_.addAttribute(currentTag_, KyUniString(value));
        content.remove_prefix(end + 1);
    }
}

LbsCommand Tier3_LbsTransmission::lookupCommand(const KyUniString& word) {
    for (int index = 0; index < arraySize; ++index) {
        if (word == commandTable[index])
            return static_cast<LbsCommand>(index);
    }
    return LBS_UNKNOWN;
}

void Tier3_LbsTransmission::scanOpeningTag(std::u16string_view text, std::size_t& contentStart) {
    std::size_t nameStart = 0;
    std::size_t i = 0;
    for (; i < text.size(); ++i) {
        const char16_t c = text[i];
        if (c == u'<') {
            nameStart = i + 1;
        } else if (c == u' ') {
            // Every blank moves the short name's end, so the last one before '>' counts.
            currentName_ = LowerCased(text.substr(nameStart, i - nameStart));
        } else if (c == u'>') {
            currentTag_ = LowerCased(text.substr(nameStart, i - nameStart));
            break;
        }
    }
    contentStart = i + 1;
}

bool Tier3_LbsTransmission::closingNameMatches(std::u16string_view name) const {
    auto equalsLowered = [name](std::u16string_view lowered) {
        if (name.size() != lowered.size())
            return false;
        for (std::size_t k = 0; k < name.size(); ++k) {
            if (KyUniString::Lower(name[k]) != lowered[k])
                return false;
        }
        return true;
    };
    return equalsLowered(currentTag_.View()) || equalsLowered(currentName_.View());
}

std::size_t Tier3_LbsTransmission::parseElement(std::u16string_view text,
                                                std::u16string_view& content) {
    currentName_ = KyUniString();
    content = {};
    std::size_t contentStart = 0;
    scanOpeningTag(text, contentStart);

    const std::size_t n = text.size();
    std::size_t j = contentStart;
    while (j < n) {
        if (text[j] != u'<') {
            ++j;
            continue;
        }
        if (j + 1 < n && text[j + 1] != u'/') {
            j += 2;
            continue;
        }
        const std::size_t close = j + 1 < n ? text.find(u'>', j + 2) : std::u16string_view::npos;
        if (close == std::u16string_view::npos) {
            j = n;
            break;
        }
        const std::u16string_view name = text.substr(j + 2, close - j - 2);
        if (closingNameMatches(name)) {
            content = text.substr(contentStart, j - contentStart);
            if (name.empty())
                LogAttributeLookupFail(KyUniString(text));
            return close;
        }
        j = close + 1;
    }
    LogSyntaxError(KyUniString(text), static_cast<int>(j), KyUniString(SYNTAX_ATTRIBUTE_ERROR));
    return 0;
}
