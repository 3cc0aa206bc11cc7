#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/P.h"
#include "harl/foundation/kz/TBuffer.h"
#include "harl/foundation/kz/TConstBufferSlice.h"

#include <gtest/gtest.h>

namespace {

TEST(TBufferTest, GrowingKeepsUsedBytesAndAlignment) {
    kz::TBuffer<unsigned char> buffer(3, 4096);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(buffer.getData()) % 4096, 0u);
    buffer[0] = 1;
    buffer[1] = 2;
    buffer[2] = 3;
    buffer.setUsed(100000);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(buffer.getData()) % 4096, 0u);
    EXPECT_EQ(buffer[2], 3);
    buffer.setUsed(2);
    buffer.ensureAllocated(10);
    EXPECT_EQ(buffer.getUsed(), 2u);

    kz::TBuffer<unsigned char> copy = buffer;
    EXPECT_EQ(copy, buffer);
    copy[0] = 9;
    EXPECT_NE(copy, buffer);

    // Assigning from inside the buffer itself is a move within it.
    buffer.setUsed(3);
    buffer.assign(buffer.getData() + 1, 2);
    EXPECT_EQ(buffer.getUsed(), 2u);
    EXPECT_EQ(buffer[0], 2);
    kz::TBuffer<unsigned char> one(1);  // even a single element survives growing
    one[0] = 7;
    one.ensureAllocated(1000);
    EXPECT_EQ(one[0], 7);
    const unsigned char tail[] = {8, 9};
    one.append(tail, 2);
    ASSERT_EQ(one.getUsed(), 3u);
    EXPECT_EQ(one[2], 9);
}

TEST(TBufferTest, HeapBuffersAreReferenceCounted) {
    kz::P<kz::TBuffer<unsigned int>> shared(new kz::TBuffer<unsigned int>(4));
    kz::P<kz::TBuffer<unsigned int>> other = shared;
    (*other)[3] = 7;
    EXPECT_EQ((*shared)[3], 7u);
    kz::P<kz::TCryptBuffer<>> key(new kz::TCryptBuffer<>(32));
    EXPECT_EQ(key->getUsed(), 32u);
}

TEST(TBufferTest, SliceBounds) {
    kz::TBuffer<unsigned char> buffer(10);
    EXPECT_EQ(kz::TConstBufferSlice<>(buffer).getLength(), 10u);
    EXPECT_EQ(kz::TConstBufferSlice<>(buffer, 4).getLength(), 6u);
    const kz::TConstBufferSlice<> middle(buffer, 2, 3);
    EXPECT_EQ(middle.getData(), buffer.getData() + 2);
    EXPECT_EQ(kz::TConstBufferSlice<>(buffer, 10, 0).getLength(), 0u);
    EXPECT_THROW(kz::TConstBufferSlice<>(buffer, 11), kz::CError);
    EXPECT_THROW(kz::TConstBufferSlice<>(buffer, 5, 6), kz::CError);
    EXPECT_THROW(kz::TConstBufferSlice<>(buffer, 0, -2), kz::CError);
}

}  // namespace
