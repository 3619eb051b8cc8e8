// Byte buffers: sharing and copy-on-write, growth that keeps the data, and editing.
#include "lib/bytebuf.h"

#include <gtest/gtest.h>

namespace {

KyByteBuffer Bytes(std::string_view text) {
    return KyByteBuffer(text);
}

TEST(ByteBuffer, CopiesShareUntilOneChanges) {
    KyByteBuffer original = Bytes("abc");
    KyByteBuffer copy = original;
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

// Growth leaves room beyond the request; appends from the buffer's own bytes survive the
// move that growth makes.
TEST(ByteBuffer, GrowthAndEditingKeepTheData) {
    KyByteBuffer b = Bytes("hello");
    b.Extend(100);
    EXPECT_EQ(b.Length(), 100u);
    EXPECT_GT(b.Capacity(), 100u);
    EXPECT_EQ(b.AsStringView().substr(0, 5), "hello");
    b.Truncate(5);
    b.Insert(0, 2, ">>");
    b.Remove(2, 3);
    EXPECT_EQ(b.AsStringView(), ">>lo");
    b.Append(b);
    for (int i = 0; i < 200; ++i)
        b.Append(1, std::as_const(b).Data() + i);
    EXPECT_EQ(b.Length(), 208u);
    EXPECT_EQ(b.AsStringView().substr(0, 16), ">>lo>>lo>>lo>>lo");
}

} // namespace
