#include "utilities/CircularBuffer.h"

#include <gtest/gtest.h>
#include <numeric>
#include <random>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

Bytes countingBytes(int count)
{
    Bytes bytes(static_cast<std::size_t>(count));
    std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(0));
    return bytes;
}

Bytes take(CircularBuffer& buffer, int length)
{
    Bytes bytes(static_cast<std::size_t>(length));
    bytes.resize(static_cast<std::size_t>(buffer.read(bytes.data(), length)));
    return bytes;
}

TEST(CircularBufferTest, StartsEmptyWithItsWholeCapacityFree)
{
    CircularBuffer buffer(16);
    EXPECT_EQ(buffer.avail(), 0);
    EXPECT_EQ(buffer.space(), 16);
    EXPECT_EQ(take(buffer, 1), Bytes());
}

TEST(CircularBufferTest, HoldsItsWholeCapacityAndNoByteMore)
{
    CircularBuffer buffer(16);
    const Bytes bytes = countingBytes(17);
    EXPECT_EQ(buffer.write(bytes.data(), 17), 16);
    EXPECT_EQ(buffer.space(), 0);
    EXPECT_EQ(buffer.avail(), 16);
    EXPECT_EQ(buffer.write(bytes.data(), 1), 0);
    EXPECT_EQ(take(buffer, 20), countingBytes(16));
}

TEST(CircularBufferTest, TheRecordQueueHoldsExactly65536RecordsOfEightBytes)
{
    CircularBuffer buffer(0x80000);
    const unsigned char record[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    int records = 0;
    while (buffer.write(record, 8) == 8)
        ++records;
    EXPECT_EQ(records, 65536);
    EXPECT_EQ(buffer.space(), 0);
}

TEST(CircularBufferTest, TakesNegativeAndZeroLengthsAsNothing)
{
    CircularBuffer buffer(4);
    unsigned char byte = 7;
    EXPECT_EQ(buffer.write(&byte, 0), 0);
    EXPECT_EQ(buffer.write(&byte, -1), 0);
    EXPECT_EQ(buffer.read(&byte, -1), 0);
    EXPECT_EQ(buffer.avail(), 0);
}

TEST(CircularBufferTest, KeepsOrderAcrossManyWrapsOfRandomSizes)
{
    CircularBuffer buffer(61);
    std::mt19937 random(1);
    unsigned char nextIn = 0;
    unsigned char nextOut = 0;
    for (int round = 0; round < 10000; ++round) {
        Bytes bytes(random() % 70);
        for (std::size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = static_cast<unsigned char>(nextIn + i);
        const int room = buffer.space();
        const int written = buffer.write(bytes.data(), static_cast<int>(bytes.size()));
        ASSERT_EQ(written, std::min(room, static_cast<int>(bytes.size())));
        nextIn = static_cast<unsigned char>(nextIn + written);
        for (const unsigned char byte : take(buffer, static_cast<int>(random() % 70)))
            ASSERT_EQ(byte, nextOut++);
        ASSERT_EQ(buffer.avail() + buffer.space(), 61);
    }
}

} // namespace
