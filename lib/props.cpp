// Loading, saving and escaping of properties files. The format is deliberately plain: no
// trimming, comments only in the first column, the first equals sign splits key from
// value, and the reader and the writer of escapes are not exact inverses.
#include "lib/props.h"

#include <cstdlib>
#include <string>

#include "lib/bytebuf.h"
#include "lib/codeset/converter.h"
#include "lib/file.h"
#include "lib/time.h"

namespace {

constexpr char16_t kLineFeed = 10;
constexpr char16_t kEquals = 61;
constexpr char16_t kHash = 35;
constexpr char16_t kBackslash = 92;

// Reads the four units after "\u" as hexadecimal the way strtol does: the first
// character that is not part of a number ends it.
char16_t HexUnit(std::u16string_view digits) {
    char text[5] = {};
    for (std::size_t i = 0; i < 4; ++i) {
        text[i] = digits[i] < 128 ? static_cast<char>(digits[i]) : 'z';
    }
    return static_cast<char16_t>(std::strtol(text, nullptr, 16));
}

char16_t SimpleEscape(char16_t letter) {
    switch (letter) {
    case u'n':
        return 10;
    case u'r':
        return 13;
    case u't':
        return 9;
    default:
        return letter;
    }
}

void AppendAscii(KyUniString& out, std::string_view text) {
    for (const char c : text) {
        out.Append(static_cast<char16_t>(c));
    }
}

} // namespace

KyProperties::~KyProperties() {
    entries_.Flush(true);
}

KyUniString KyProperties::UnescapeValue(const KyUniString& raw) {
    std::u16string value(raw.View());
    for (std::size_t i = 0; i + 1 < value.size(); ++i) {
        if (value[i] != kBackslash) {
            continue;
        }
        if (value[i + 1] != u'u') {
            value.replace(i, 2, 1, SimpleEscape(value[i + 1]));
        } else if (i + 6 < value.size()) {
            value.replace(i, 6, 1, HexUnit(std::u16string_view(value).substr(i + 2, 4)));
        } else {
            // An escape at the very end of the value is not decoded; only the backslash goes.
            value.erase(i, 1);
        }
    }
    return KyUniString(std::u16string_view(value));
}

void KyProperties::LoadLine(const KyUniString& line) {
    const int equals = line.Search(kEquals);
    if (equals < 0 || line.CharAt(0) == kHash) {
        return;
    }
    const auto split = static_cast<std::uint32_t>(equals);
    Put(line.SubString(0, split), UnescapeValue(line.SubString(split + 1)));
}

KyStatus KyProperties::Load(const KyUniString& path) {
    KyByteBuffer bytes;
    if (KyFile::ReadFile(path.AsUtf8(), bytes) == Failure) {
        return Failure;
    }
    KyUniString text;
    text.CreateFrom(bytes, KyEncodingUsAscii);
    const std::u16string_view all = text.View();
    std::size_t start = 0;
    while (start <= all.size()) {
        std::size_t end = all.find(kLineFeed, start);
        if (end == std::u16string_view::npos) {
            end = all.size();
        }
        LoadLine(KyUniString(all.substr(start, end - start)));
        start = end + 1;
    }
    return Success;
}

void KyProperties::escapeString(const KyUniString& in, KyUniString& out, bool commentMode) {
    static constexpr char kHex[] = "0123456789abcdef";
    for (const char16_t c : in.View()) {
        if (c == 10) {
            AppendAscii(out, commentMode ? "\n# " : "\\n");
        } else if (c == 13) {
            AppendAscii(out, "\\r");
        } else if (c == 9) {
            AppendAscii(out, "\\t");
        } else if (c < 32 || c > 127) {
            AppendAscii(out, "\\u");
            for (int shift = 12; shift >= 0; shift -= 4) {
                out.Append(static_cast<char16_t>(kHex[(c >> shift) & 0xF]));
            }
        } else {
            out.Append(c);
        }
    }
}

KyStatus KyProperties::Save(const KyUniString& path, const KyUniString& comment) const {
    KyUniString text("# written by props\n# ");
    escapeString(comment, text, true);
    text += KyUniString("\n\n# Written at: ");
    text += KyTimeVal().AsRFC1123();
    text += KyUniString("\n\n");
    entries_.ForEach([&text](const KyProperty& entry) {
        text += entry.Key();
        text.Append(kEquals);
        escapeString(entry.Value(), text, false);
        text.Append(kLineFeed);
    });
    return KyFile::WriteFile(path.AsUtf8(), text.AsEncoding(KyEncodingUsAscii));
}

const KyUniString* KyProperties::Get(const KyUniString& key) const {
    const KyProperty* entry = entries_.Find(KyProperty(key));
    return entry == nullptr ? nullptr : &entry->Value();
}

void KyProperties::Put(const KyUniString& key, const KyUniString& value) {
    entries_.Delete(KyProperty(key));
    entries_.Insert(new KyProperty(key, value));
}

KyStatus KyProperties::Remove(const KyUniString& key) {
    return entries_.Delete(KyProperty(key));
}

KyUniString KyConfigurationError::Reason() const {
    return KyUniString("Key ") + key_ + KyUniString(" gave list ") + list_ +
           KyUniString(": Failure: ") + message_;
}
