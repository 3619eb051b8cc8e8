// The attribute list of one parsed control request: appended at the tail so that
// request order holds, searched from the head so that the first of repeated names wins.
#include "probe/lbsattributes.h"

KyUniString LbsAttributes::NULLSTRING;

LbsAttributes::~LbsAttributes() {
    // Unlink node by node so a long list cannot recurse through the node destructors.
    while (head_) {
        std::unique_ptr<LbsAttribute> next = std::move(head_->next_);
        head_ = std::move(next);
        decr_size();
    }
}

bool LbsAttributes::addAttribute(const KyUniString& name, const KyUniString& value) {
    auto node = std::make_unique<LbsAttribute>(name, value);
    LbsAttribute* added = node.get();
    if (tail_)
        tail_->next_ = std::move(node);
    else
        head_ = std::move(node);
    tail_ = added;
    incr_size();
    return true;
}

bool LbsAttributes::getByName(const KyUniString& name, KyUniString& value) const {
    for (const LbsAttribute* node = head_.get(); node; node = node->next_.get()) {
        if (node->name_ == name) {
            value = node->value_;
            return true;
        }
    }
    return false;
}

bool LbsAttributes::getAllByName(const KyUniString& name, KyUniString** values, int max) {
    int found = 0;
    for (LbsAttribute* node = head_.get(); node && found < max; node = node->next_.get()) {
        if (node->name_ == name)
            values[found++] = &node->value_;
    }
    for (int slot = found; slot < max; ++slot)
        values[slot] = &NULLSTRING;
    return found > 0;
}
