// Reference-counted, copy-on-write byte arrays. KyByteBufferRep is the shared
// representation; KyByteBuffer is the value handle that every string, file read and
// socket buffer in the library is built on. Copies share one representation until
// one of them changes; every mutating operation makes its buffer the sole owner first.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "lib/numbers.h"

// Heap-only shared storage: it deletes itself when its last reference goes, so its
// destructor is not public.
class KyByteBufferRep {
public:
    KyByteBufferRep() = default;
    KyByteBufferRep(std::uint32_t length, const void* data);
    KyByteBufferRep(const KyByteBufferRep&) = delete;
    KyByteBufferRep& operator=(const KyByteBufferRep&) = delete;

    // Grows the block to (n + (setLength ? n / 8 : 0) + 16) rounded down to 16 bytes.
    virtual KyStatus _extend(std::uint32_t length, bool setLength);
    virtual void RefCountSub();

    void RefCountAdd() { ++refCount_; }
    std::uint32_t RefCount() const { return refCount_; }
    std::uint32_t Length() const { return length_; }
    std::uint32_t Capacity() const { return capacity_; }
    unsigned char* Data() const { return data_; }

    KyStatus Extend(std::uint32_t length);
    KyStatus PreAllocate(std::uint32_t capacity);
    void Truncate(std::uint32_t length);

protected:
    virtual ~KyByteBufferRep();

private:
    std::uint32_t refCount_ = 1;
    std::uint32_t length_ = 0;
    std::uint32_t capacity_ = 0;
    unsigned char* data_ = nullptr;
};

class KyByteBuffer {
public:
    KyByteBuffer() = default;
    KyByteBuffer(std::uint32_t length, const void* data);
    explicit KyByteBuffer(std::span<const unsigned char> bytes);
    explicit KyByteBuffer(std::string_view bytes);
    KyByteBuffer(const KyByteBuffer& other);
    KyByteBuffer(KyByteBuffer&& other) noexcept;
    KyByteBuffer& operator=(const KyByteBuffer& other);
    KyByteBuffer& operator=(KyByteBuffer&& other) noexcept;
    virtual ~KyByteBuffer();

    std::uint32_t Length() const { return rep_ ? rep_->Length() : 0; }
    std::uint32_t Capacity() const { return rep_ ? rep_->Capacity() : 0; }
    // The const form may give null; the non-const form makes the buffer unique first,
    // so the caller may write through the pointer.
    const unsigned char* Data() const { return rep_ ? rep_->Data() : nullptr; }
    unsigned char* Data();
    // No terminator is added: the bytes are exactly the buffer's.
    const char* c_str() const { return reinterpret_cast<const char*>(Data()); }
    char* c_str() { return reinterpret_cast<char*>(Data()); }
    unsigned char operator[](std::uint32_t i) const { return Data()[i]; }
    unsigned char& operator[](std::uint32_t i) { return Data()[i]; }

    std::span<const unsigned char> Bytes() const { return {Data(), Length()}; }
    std::string_view AsStringView() const { return {c_str(), Length()}; }

    KyStatus Append(std::uint32_t length, const void* data);
    KyStatus Append(const KyByteBuffer& other);
    KyStatus Append(unsigned char byte);
    KyStatus Insert(std::uint32_t position, std::uint32_t length, const void* data);
    KyStatus Remove(std::uint32_t position, std::uint32_t count);
    KyStatus Truncate(std::uint32_t length);
    KyStatus Extend(std::uint32_t length);
    KyStatus PreAllocate(std::uint32_t capacity);

    // h = h * 9 + byte over the bytes, wrapping at 32 bits; 0 when empty.
    std::uint32_t HashValue() const;
    // Byte comparison over this buffer's length; callers compare lengths first.
    bool _equal(const KyByteBuffer& other) const;
    bool operator==(const KyByteBuffer& other) const;

    // Makes this handle the only owner of its representation (creating one if needed).
    KyStatus Unique();
    // How many handles share the representation (0 without one).
    std::uint32_t RefCount() const { return rep_ ? rep_->RefCount() : 0; }

protected:
    virtual void _Unique();
    void Release();

    KyByteBufferRep* rep_ = nullptr;
};

// The byte hash that buffers, strings and dictionary buckets share.
constexpr std::uint32_t KyByteHash(std::span<const unsigned char> bytes) {
    std::uint32_t h = 0;
    for (unsigned char b : bytes)
        h = h * 9 + b;
    return h;
}
