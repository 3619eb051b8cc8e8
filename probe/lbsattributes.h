// LbsAttributes: the ordered list of named attributes that the request parser
// (Tier3_LbsTransmission) builds from one control request and the command interpreter
// reads. Names may repeat; order is request order; the list owns its nodes.
#pragma once

#include <cstdint>
#include <memory>

#include "lib/unistring.h"

class LbsAttribute {
public:
    LbsAttribute(const KyUniString& name, const KyUniString& value) : name_(name), value_(value) {}

    const KyUniString& getName() const { return name_; }
    const KyUniString& getValue() const { return value_; }
    KyUniString& getValue() { return value_; }
    const LbsAttribute* getNext() const { return next_.get(); }

private:
    friend class LbsAttributes;

    KyUniString name_;
    KyUniString value_;
    std::unique_ptr<LbsAttribute> next_;
};

class LbsAttributes {
public:
    // Fills the result slots that no attribute matched; shared by every list.
    static KyUniString NULLSTRING;

    LbsAttributes() = default;
    LbsAttributes(const LbsAttributes&) = delete;
    LbsAttributes& operator=(const LbsAttributes&) = delete;
    ~LbsAttributes();

    bool addAttribute(const KyUniString& name, const KyUniString& value);
    // Copies the first value stored under `name` (exact comparison); false leaves `value`
    // untouched.
    bool getByName(const KyUniString& name, KyUniString& value) const;
    // Points values[0..max) at the values of the first `max` matches in order, the rest at
    // NULLSTRING; true when anything matched.
    bool getAllByName(const KyUniString& name, KyUniString** values, int max);

    std::uint32_t getSize() const { return size_; }
    const LbsAttribute* getFirst() const { return head_.get(); }

private:
    void incr_size() { ++size_; }
    void decr_size() { --size_; }

    std::unique_ptr<LbsAttribute> head_;
    LbsAttribute* tail_ = nullptr;
    std::uint32_t size_ = 0;
};
