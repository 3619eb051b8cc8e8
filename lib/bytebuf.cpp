// Copy-on-write byte storage: the representation's growth rule and reference counting,
// and the handle operations that make a buffer the sole owner before changing it.
#include "lib/bytebuf.h"

#include <cstdlib>
#include <cstring>
#include <vector>

KyByteBufferRep::KyByteBufferRep(std::uint32_t length, const void* data) {
    if (_extend(length, true) == Success && length > 0)
        std::memcpy(data_, data, length);
}

KyByteBufferRep::~KyByteBufferRep() {
    std::free(data_);
}

KyStatus KyByteBufferRep::_extend(std::uint32_t length, bool setLength) {
    const std::uint64_t wanted = std::uint64_t{length} + (setLength ? length / 8 : 0) + 16;
    const std::uint64_t capacity = wanted & ~std::uint64_t{15};
    if (capacity > UINT32_MAX)
        return Failure;
    void* grown = std::realloc(data_, capacity);
    if (grown == nullptr)
        return Failure;
    data_ = static_cast<unsigned char*>(grown);
    capacity_ = static_cast<std::uint32_t>(capacity);
    if (setLength)
        length_ = length;
    return Success;
}

void KyByteBufferRep::RefCountSub() {
    if (--refCount_ == 0)
        delete this;
}

KyStatus KyByteBufferRep::Extend(std::uint32_t length) {
    if (capacity_ <= length)
        return _extend(length, true);
    length_ = length;
    return Success;
}

KyStatus KyByteBufferRep::PreAllocate(std::uint32_t capacity) {
    return capacity_ < capacity ? _extend(capacity, false) : Success;
}

void KyByteBufferRep::Truncate(std::uint32_t length) {
    if (length < length_)
        length_ = length;
}

KyByteBuffer::KyByteBuffer(std::uint32_t length, const void* data) {
    if (length > 0)
        rep_ = new KyByteBufferRep(length, data);
}

KyByteBuffer::KyByteBuffer(std::span<const unsigned char> bytes)
    : KyByteBuffer(static_cast<std::uint32_t>(bytes.size()), bytes.data()) {}

KyByteBuffer::KyByteBuffer(std::string_view bytes)
    : KyByteBuffer(static_cast<std::uint32_t>(bytes.size()), bytes.data()) {}

KyByteBuffer::KyByteBuffer(const KyByteBuffer& other) : rep_(other.rep_) {
    if (rep_)
        rep_->RefCountAdd();
}

KyByteBuffer::KyByteBuffer(KyByteBuffer&& other) noexcept : rep_(other.rep_) {
    other.rep_ = nullptr;
}

KyByteBuffer& KyByteBuffer::operator=(const KyByteBuffer& other) {
    if (rep_ == other.rep_)
        return *this;
    if (other.rep_)
        other.rep_->RefCountAdd();
    Release();
    rep_ = other.rep_;
    return *this;
}

KyByteBuffer& KyByteBuffer::operator=(KyByteBuffer&& other) noexcept {
    if (this != &other) {
        Release();
        rep_ = other.rep_;
        other.rep_ = nullptr;
    }
    return *this;
}

KyByteBuffer::~KyByteBuffer() {
    Release();
}

void KyByteBuffer::Release() {
    if (rep_)
        rep_->RefCountSub();
    rep_ = nullptr;
}

KyStatus KyByteBuffer::Unique() {
    if (rep_ == nullptr || rep_->RefCount() != 1)
        _Unique();
    return AsStatus(rep_ != nullptr);
}

void KyByteBuffer::_Unique() {
    if (rep_ == nullptr) {
        rep_ = new KyByteBufferRep();
        return;
    }
    auto* copy = new KyByteBufferRep(rep_->Length(), rep_->Data());
    rep_->RefCountSub();
    rep_ = copy;
}

unsigned char* KyByteBuffer::Data() {
    Unique();
    return rep_->Data();
}

KyStatus KyByteBuffer::Append(std::uint32_t length, const void* data) {
    if (length == 0)
        return Success;
    Unique();
    const std::uint32_t old = rep_->Length();
    if (old > UINT32_MAX - length)
        return Failure;
    // The source may lie inside this very buffer, which the growth can move.
    const auto* src = static_cast<const unsigned char*>(data);
    const unsigned char* base = rep_->Data();
    const bool inside = base != nullptr && src >= base && src < base + rep_->Capacity();
    const std::size_t offset = inside ? static_cast<std::size_t>(src - base) : 0;
    if (rep_->Extend(old + length) != Success)
        return Failure;
    if (inside)
        src = rep_->Data() + offset;
    std::memmove(rep_->Data() + old, src, length);
    return Success;
}

KyStatus KyByteBuffer::Append(const KyByteBuffer& other) {
    return Append(other.Length(), other.Data());
}

KyStatus KyByteBuffer::Append(unsigned char byte) {
    return Append(1, &byte);
}

KyStatus KyByteBuffer::Insert(std::uint32_t position, std::uint32_t length, const void* data) {
    if (length == 0)
        return Success;
    const auto* src = static_cast<const unsigned char*>(data);
    const std::vector<unsigned char> copy(src, src + length);
    Unique();
    const std::uint32_t old = rep_->Length();
    if (position > old)
        position = old;
    if (old > UINT32_MAX - length || rep_->Extend(old + length) != Success)
        return Failure;
    unsigned char* bytes = rep_->Data();
    std::memmove(bytes + position + length, bytes + position, old - position);
    std::memcpy(bytes + position, copy.data(), length);
    return Success;
}

KyStatus KyByteBuffer::Remove(std::uint32_t position, std::uint32_t count) {
    const std::uint32_t old = Length();
    if (position >= old || count == 0)
        return AsStatus(position <= old);
    if (count > old - position)
        count = old - position;
    Unique();
    unsigned char* bytes = rep_->Data();
    std::memmove(bytes + position, bytes + position + count, old - position - count);
    rep_->Truncate(old - count);
    return Success;
}

KyStatus KyByteBuffer::Truncate(std::uint32_t length) {
    if (length >= Length())
        return Success;
    Unique();
    rep_->Truncate(length);
    return Success;
}

KyStatus KyByteBuffer::Extend(std::uint32_t length) {
    Unique();
    return rep_->Extend(length);
}

KyStatus KyByteBuffer::PreAllocate(std::uint32_t capacity) {
    Unique();
    return rep_->PreAllocate(capacity);
}

std::uint32_t KyByteBuffer::HashValue() const {
    return rep_ ? KyByteHash(Bytes()) : 0;
}

bool KyByteBuffer::_equal(const KyByteBuffer& other) const {
    const std::uint32_t length = Length();
    return length == 0 || std::memcmp(Data(), other.Data(), length) == 0;
}

bool KyByteBuffer::operator==(const KyByteBuffer& other) const {
    return Length() == other.Length() && _equal(other);
}
