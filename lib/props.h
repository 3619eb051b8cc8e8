// KyProperties: the library's store of string settings, loaded from and saved to text
// files of key=value lines with one escape syntax for values. The probe reads its
// configuration through it. KyConfigurationError is the library's error for settings.
#pragma once

#include <cstddef>
#include <cstdint>

#include "lib/dictionary.h"
#include "lib/error.h"
#include "lib/numbers.h"
#include "lib/unistring.h"

// One entry; entries are equal, and hash, by their key alone.
class KyProperty {
public:
    explicit KyProperty(const KyUniString& key, const KyUniString& value = KyUniString())
        : key_(key), value_(value) {}

    const KyUniString& Key() const { return key_; }
    const KyUniString& Value() const { return value_; }
    bool operator==(const KyProperty& other) const { return key_ == other.key_; }
    std::uint32_t HashValue() const { return key_.HashValue(); }

private:
    KyUniString key_;
    KyUniString value_;
};

class KyProperties {
public:
    KyProperties() = default;
    ~KyProperties();
    KyProperties(const KyProperties&) = delete;
    KyProperties& operator=(const KyProperties&) = delete;

    // Adds the file's entries to those already held. Fails only when the file cannot be
    // read; malformed lines are skipped.
    KyStatus Load(const KyUniString& path);
    // Writes a header with the comment and the time, then one line per entry (mode 0600).
    KyStatus Save(const KyUniString& path, const KyUniString& comment) const;

    // Valid until the entry is replaced or removed; null when the key is absent.
    const KyUniString* Get(const KyUniString& key) const;
    // The last Put of a key wins.
    void Put(const KyUniString& key, const KyUniString& value);
    KyStatus Remove(const KyUniString& key);
    std::size_t Count() const { return entries_.Length(); }

    // Appends `in` to `out` escaped for a value line or, in comment mode, for the header
    // comment (a line feed there starts a new comment line).
    static void escapeString(const KyUniString& in, KyUniString& out, bool commentMode);
    // Decodes the escapes of a value as read from a file.
    static KyUniString UnescapeValue(const KyUniString& raw);

private:
    void LoadLine(const KyUniString& line);

    KyDictionary<KyProperty> entries_{32};
};

class KyConfigurationError : public KyError {
public:
    KyConfigurationError(const KyUniString& message, const KyUniString& key,
                         const KyUniString& list)
        : message_(message), key_(key), list_(list) {}

    // "Key <key> gave list <list>: Failure: <message>"
    KyUniString Reason() const override;

private:
    KyUniString message_;
    KyUniString key_;
    KyUniString list_;
};
