// The one parser of MIDI bytes, and the table of message lengths.
#include "transport/MIDIByteStream.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

// Each piece as text: "643c90" a short message, "<F0 01" SysEx that begins, "02 F7>" that ends,
// "!" SysEx broken off, "?" a byte that belongs to nothing.
struct Pieces
{
    void operator()(const MIDIPiece& piece)
    {
        char digits[16];
        std::string text = piece.kind == MIDIPiece::Kind::Broken ? "!" : "?";
        if (piece.kind == MIDIPiece::Kind::Short) {
            std::snprintf(digits, sizeof digits, "%x", piece.word);
            text = digits;
        } else if (piece.kind == MIDIPiece::Kind::SysEx) {
            text = piece.first ? "<" : "";
            for (std::size_t i = 0; i < piece.length; ++i) {
                std::snprintf(digits, sizeof digits, i ? " %02X" : "%02X", piece.bytes[i]);
                text += digits;
            }
            text += piece.last ? ">" : "";
        }
        texts->push_back(text);
    }

    std::vector<std::string>* texts;
};

struct ByteStream : testing::Test
{
    std::vector<std::string> parse(const Bytes& bytes)
    {
        std::vector<std::string> texts;
        stream.bytes(bytes.data(), bytes.size(), Pieces{&texts});
        return texts;
    }
    MIDIByteStream stream;
};

using Texts = std::vector<std::string>;

TEST_F(ByteStream, TakesMessagesApartWithRunningStatus)
{
    EXPECT_EQ(parse({0x40, 0x41}), (Texts{"?", "?"})); // no status yet
    EXPECT_EQ(parse({0x90, 0x40}), Texts{});           // over the end of the data ...
    EXPECT_EQ(parse({0x64, 0x41, 0x65}), (Texts{"644090", "654190"})); // ... and running status
    EXPECT_EQ(parse({0xF8, 0x42, 0xFE, 0x66}), (Texts{"f8", "fe", "664290"}));
    EXPECT_EQ(parse({0xD3, 0x11, 0x12}), (Texts{"11d3", "12d3"}));
    EXPECT_EQ(parse({0xF2, 1, 2, 0xF3, 5, 0xF6}), (Texts{"201f2", "5f3", "f6"}));
    EXPECT_EQ(parse({0x13}), Texts{"?"}); // system messages end running status
    EXPECT_EQ(parse({0x91, 1, 0x82, 3, 4, 0xF4, 0xF7}), (Texts{"40382", "?", "?"}));
}

TEST_F(ByteStream, KeepsRealtimeOutOfSysExAndContinuesIt)
{
    EXPECT_EQ(parse({0xF0, 1, 0xF8, 2}), (Texts{"<F0 01", "f8", "02"}));
    EXPECT_EQ(parse({3, 0xFE, 0xF7, 0xF7}), (Texts{"03", "fe", "F7>", "?"}));
}

TEST_F(ByteStream, ReportsSysExThatAStatusByteBreaksOff)
{
    EXPECT_EQ(parse({0xF0, 1, 0x90, 60, 100, 61, 0}), (Texts{"<F0 01", "!", "643c90", "3d90"}));
    EXPECT_EQ(parse({0xF0, 3, 0xF0, 4, 0xF7}), (Texts{"<F0 03", "!", "<F0 04 F7>"}));
}

TEST_F(ByteStream, TakesAShortMessageAsItIsOrWithRunningStatus)
{
    Texts texts;
    const Pieces pieces{&texts};
    EXPECT_FALSE(stream.shortMessage(0x6541, pieces));    // no status yet
    EXPECT_TRUE(stream.shortMessage(0xAA644090, pieces)); // the high byte carries nothing
    EXPECT_TRUE(stream.shortMessage(0x6541, pieces));
    EXPECT_FALSE(stream.shortMessage(0xF0, pieces));
    EXPECT_TRUE(stream.shortMessage(0xF8, pieces));
    EXPECT_EQ(texts, (Texts{"644090", "654190", "f8"}));
}

TEST_F(ByteStream, AShortRealtimeMessageLeavesTheOneThatIsUnfinished)
{
    Texts texts;
    EXPECT_EQ(parse({0x90, 0x40}), Texts{});
    EXPECT_TRUE(stream.shortMessage(0xF8, Pieces{&texts}));
    EXPECT_EQ(texts, Texts{"f8"});
    EXPECT_EQ(parse({0x64}), Texts{"644090"});
}

TEST(MessageLength, IsThatOfTheStatusByte)
{
    for (unsigned status = 0; status < 0x80; ++status)
        EXPECT_EQ(midiMessageLength(static_cast<unsigned char>(status)), 0u);
    const std::size_t lengths[] = {3, 3, 3, 3, 2, 2, 3}; // 8n to En
    for (unsigned status = 0x80; status < 0xF0; ++status)
        EXPECT_EQ(midiMessageLength(static_cast<unsigned char>(status)),
                  lengths[(status - 0x80) / 16]);
    const std::size_t system[] = {0, 2, 3, 2, 0, 0, 1, 0, 1, 1, 1, 1, 1, 1, 1, 1};
    for (unsigned status = 0xF0; status <= 0xFF; ++status)
        EXPECT_EQ(midiMessageLength(static_cast<unsigned char>(status)), system[status - 0xF0]);
}

} // namespace
