// Shared by the harnesses, each with one LLVMFuzzerTestOneInput for libFuzzer.
#ifndef LUMORA_TESTS_FUZZ_FUZZ_H
#define LUMORA_TESTS_FUZZ_FUZZ_H

#include "tests/unit/TestSupport.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

/// Ends the process, which makes an input a finding.
#define FUZZ_CHECK(condition)                                                                      \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            std::fprintf(stderr, "%s:%d: not true: %s\n", __FILE__, __LINE__, #condition);         \
            std::abort();                                                                          \
        }                                                                                          \
    } while (false)

/// The text of these UTF-16 units, without Qt's handling of a byte order mark.
inline QString fromUnits(const std::u16string& units)
{
    return QString(reinterpret_cast<const QChar*>(units.data()), static_cast<int>(units.size()));
}

/// Takes the values that a harness needs from the bytes of one input. Zeros follow the end.
class FuzzInput
{
public:
    FuzzInput(const std::uint8_t* data, std::size_t size) : at(data), end(data + size) {}

    bool atEnd() const { return at == end; }

    unsigned char byte() { return at == end ? static_cast<unsigned char>(0) : *at++; }
    bool flag() { return byte() % 2 != 0; }
    unsigned below(unsigned limit) { return byte() % limit; }
    unsigned word() { return byte() | unsigned(byte()) << 8; }
    DWORD dword() { return word() | DWORD(word()) << 16; }

    /// `count` bytes; those after the end of the input are zero.
    Bytes bytes(std::size_t count)
    {
        Bytes result(count);
        const std::size_t given = std::min(count, static_cast<std::size_t>(end - at));
        std::copy(at, at + given, result.begin());
        at += given;
        return result;
    }

    /// A length byte, then one byte for each ASCII character or for one of the pieces of text that
    /// the library looks for, or three for any other UTF-16 unit.
    QString text()
    {
        static const char* const pieces[] = {"<;>", "<[Inp]>", "<[Out]>", "1;", "2;"};
        QString result;
        for (unsigned left = byte(); left > 0 && !atEnd(); --left) {
            const unsigned char c = byte();
            if (c == 0xFF)
                result += QChar(static_cast<ushort>(word()));
            else if (c >= 0x80 && c < 0x80 + 16)
                result += QLatin1String(pieces[c % 5]);
            else
                result += QLatin1Char(static_cast<char>(c));
        }
        return result;
    }

    /// One of a few identifiers, so that some are equal.
    QUuid uuid() { return ::uuid(static_cast<unsigned char>(below(8))); }

private:
    const std::uint8_t* at;
    const std::uint8_t* const end;
};

/// A fresh simulation for one input, which must leak nothing.
class FuzzRun
{
public:
    FuzzRun()
    {
        sim::reset();
        sim::logCalls(false);
    }
    ~FuzzRun() { FUZZ_CHECK(sim::inUse() == sim::Resources()); }

    FuzzRun(const FuzzRun&) = delete;
    FuzzRun& operator=(const FuzzRun&) = delete;
};

#endif
