// Byte buffers: sharing and copy-on-write, the growth rule, editing and the byte hash.
#include "lib/bytebuf.h"

#include <gtest/gtest.h>

namespace {

KyByteBuffer Bytes(std::string_view text) {
    return KyByteBuffer(text);
}

TEST(ByteBuffer, CopiesShareUntilOneChanges) {
    KyByteBuffer original = Bytes("abc");
    KyByteBuffer copy = original;
    EXPECT_EQ(original.RefCount(), 2u);
    EXPECT_EQ(std::as_const(copy).Data(), std::as_const(original).Data());

    copy[0] = 'X';
    EXPECT_EQ(original.AsStringView(), "abc");
    EXPECT_EQ(copy.AsStringView(), "Xbc");
    EXPECT_EQ(original.RefCount(), 1u);

    const unsigned char* before = std::as_const(original).Data();
    original.Append('d');
    original[1] = 'B';
    EXPECT_EQ(std::as_const(original).Data(), before) << "a sole owner changes in place";
    EXPECT_EQ(original.AsStringView(), "aBcd");

    KyByteBuffer assigned;
    assigned = copy;
    assigned = copy; // same representation again: no extra reference
    EXPECT_EQ(copy.RefCount(), 2u);
}

TEST(ByteBuffer, GrowthFollowsTheCapacityRule) {
    KyByteBuffer b;
    b.Extend(100); // 100 + 100 / 8 + 16 = 128
    EXPECT_EQ(b.Length(), 100u);
    EXPECT_EQ(b.Capacity(), 128u);
    b.Extend(50); // room enough: only the length changes
    EXPECT_EQ(b.Capacity(), 128u);
    b.Extend(128); // capacity equal to the request still grows: 128 + 16 + 16
    EXPECT_EQ(b.Capacity(), 160u);

    KyByteBuffer p;
    p.PreAllocate(100); // no eighth on top: 116 rounded down
    EXPECT_EQ(p.Capacity(), 112u);
    EXPECT_EQ(p.Length(), 0u);
    p.PreAllocate(50);
    EXPECT_EQ(p.Capacity(), 112u);
}

TEST(ByteBuffer, EditingOperations) {
    KyByteBuffer b = Bytes("hello");
    b.Insert(0, 2, ">>");
    b.Insert(99, 1, "!"); // past the end: appended
    EXPECT_EQ(b.AsStringView(), ">>hello!");
    b.Remove(2, 2);
    b.Remove(4, 100); // only as far as the end
    EXPECT_EQ(b.AsStringView(), ">>ll");
    b.Truncate(2);
    EXPECT_EQ(b.AsStringView(), ">>");

    b.Append(b); // the source is the buffer itself
    b.Insert(1, 2, std::as_const(b).Data());
    EXPECT_EQ(b.AsStringView(), ">>>>>>");
    for (int i = 0; i < 200; ++i)
        b.Append(1, std::as_const(b).Data() + i); // source moves as the buffer grows
    EXPECT_EQ(b.Length(), 206u);
}

TEST(ByteBuffer, HashAndEquality) {
    KyByteBuffer empty;
    EXPECT_EQ(std::as_const(empty).c_str(), nullptr) << "an empty buffer has no storage";
    EXPECT_EQ(empty.HashValue(), 0u);
    EXPECT_TRUE(empty == KyByteBuffer());
    EXPECT_EQ(Bytes("a").HashValue(), 97u);
    EXPECT_EQ(Bytes("ab").HashValue(), 971u);
    // Wraps at 32 bits instead of widening.
    std::uint32_t expected = 0;
    for (int i = 0; i < 40; ++i)
        expected = expected * 9 + 'z';
    EXPECT_EQ(Bytes(std::string(40, 'z')).HashValue(), expected);

    EXPECT_TRUE(Bytes("abc") == Bytes("abc"));
    EXPECT_FALSE(Bytes("abc") == Bytes("abd"));
    EXPECT_FALSE(Bytes("abc") == Bytes("ab"));
}

} // namespace
