// Users' input to lumora-midi: .mid and .syx files, and messages in words.

#include "tests/fuzz/Fuzz.h"
#include "tools/Failure.h"
#include "tools/MidiBytes.h"
#include "tools/MidiFile.h"
#include "tools/Words.h"

#include <functional>
#include <optional>

using Messages = QVector<QByteArray>;

// Empty if the data is refused, for which there is only one way.
static std::optional<Messages> taken(const std::function<Messages()>& read)
{
    try {
        return read();
    } catch (const Failure& failure) {
        FUZZ_CHECK(failure.status == ExitStatus::BadData);
        FUZZ_CHECK(failure.message.endsWith(QLatin1Char('.')) ||
                   failure.message.endsWith(QLatin1Char(')')));
        return {};
    }
}

static qint64 bytesIn(const Messages& messages)
{
    qint64 bytes = 0;
    for (const QByteArray& message : messages)
        bytes += message.size();
    return bytes;
}

static void expectSysEx(const std::optional<Messages>& messages, qint64 most)
{
    if (!messages)
        return;
    for (const QByteArray& message : *messages)
        FUZZ_CHECK(isWholeSysEx(message));
    FUZZ_CHECK(bytesIn(*messages) <= most);
}

static void readSyx(const QByteArray& file)
{
    int padding = 0;
    const std::optional<Messages> strict = taken([&] { return splitSysEx(file); });
    const std::optional<Messages> lenient = taken([&] { return splitSysEx(file, &padding); });
    expectSysEx(lenient, file.size());
    if (strict) {
        FUZZ_CHECK(padding == 0 && lenient == strict);
        FUZZ_CHECK(bytesIn(*strict) == file.size());
    }
    if (lenient)
        FUZZ_CHECK(bytesIn(*lenient) + padding == file.size());
}

// The messages of words are parsed again from their bytes.
static void readWords(const QByteArray& text)
{
    const std::optional<Messages> messages =
        taken([&] { return parseMessages({QString::fromUtf8(text)}); });
    if (!messages)
        return;
    QByteArray bytes;
    for (const QByteArray& message : *messages)
        bytes += message;
    FUZZ_CHECK(splitMessages(bytes) == *messages);
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<int>(size));
    readSyx(bytes);
    readWords(bytes);
    if (isMidiFile(bytes))
        expectSysEx(taken([&] { return sysExOfMidiFile(bytes); }), bytes.size());
    return 0;
}
