#include "tools/Console.h"

#include "tools/Failure.h"
#include "tools/Text.h"

#include <algorithm>
#include <mutex>
#include <windows.h>

// The most that is written to a console at once; older systems take 64 KB or less.
static const int kConsoleUnits = 8192;

// How long an ending program waits for a writing thread, in milliseconds.
static const int kLeaveMs = 50;

// The main thread, the progress bar's, and the system's for Ctrl-C all write.
static std::mutex terminalMutex; // guards what follows and the order of what is written
static QString lineInPlace;      // the cursor is after it

static bool isTerminal(HANDLE stream)
{
    DWORD mode = 0;
    return GetConsoleMode(stream, &mode);
}

// This and the next return false, with the reason in GetLastError(), if they cannot write all.
static bool writeToTerminal(HANDLE terminal, const QString& text)
{
    int done = 0;
    while (done < text.size()) {
        const int piece = pieceEnd(text, done, kConsoleUnits) - done;
        DWORD written = 0;
        if (!WriteConsoleW(terminal, text.utf16() + done, static_cast<DWORD>(piece), &written,
                           nullptr) ||
            written == 0)
            return false;
        done += static_cast<int>(written);
    }
    return true;
}

static bool writeTo(DWORD which, const QString& text)
{
    const HANDLE stream = GetStdHandle(which);
    if (isTerminal(stream))
        return writeToTerminal(stream, text);
    DWORD written = 0;
    const QByteArray bytes = text.toUtf8();
    int done = 0;
    while (done < bytes.size()) {
        if (!WriteFile(stream, bytes.constData() + done, static_cast<DWORD>(bytes.size() - done),
                       &written, nullptr) ||
            written == 0)
            return false;
        done += static_cast<int>(written);
    }
    return true;
}

static WORD attributesOf(Colour colour)
{
    switch (colour) {
    case Colour::Green:
        return FOREGROUND_GREEN;
    case Colour::Yellow:
        return FOREGROUND_RED | FOREGROUND_GREEN;
    case Colour::Magenta:
        return FOREGROUND_RED | FOREGROUND_BLUE;
    case Colour::Cyan:
        return FOREGROUND_GREEN | FOREGROUND_BLUE;
    case Colour::None:
        break;
    }
    return FOREGROUND_RED | FOREGROUND_GREEN | FOREGROUND_BLUE;
}

// Leaves one column free: some consoles start a new line after the last one.
static int widthOf(DWORD which)
{
    CONSOLE_SCREEN_BUFFER_INFO info;
    return GetConsoleScreenBufferInfo(GetStdHandle(which), &info) ? std::max(0, info.dwSize.X - 1)
                                                                  : 80;
}

static bool writeInPlace(const QString& line)
{
    const int width = widthOf(STD_ERROR_HANDLE);
    return writeTo(STD_ERROR_HANDLE, QLatin1Char('\r') + line.left(width).leftJustified(width) +
                                         (line.isEmpty() ? QStringLiteral("\r") : QString()));
}

static bool writeColoured(const QString& text, Colour colour)
{
    const HANDLE terminal = GetStdHandle(STD_OUTPUT_HANDLE);
    CONSOLE_SCREEN_BUFFER_INFO info;
    if (colour == Colour::None || !qEnvironmentVariableIsEmpty("NO_COLOR") ||
        !GetConsoleScreenBufferInfo(terminal, &info))
        return writeTo(STD_OUTPUT_HANDLE, text);
    const WORD all = FOREGROUND_RED | FOREGROUND_GREEN | FOREGROUND_BLUE;
    SetConsoleTextAttribute(terminal,
                            static_cast<WORD>((info.wAttributes & ~all) | attributesOf(colour)));
    const bool written = writeTo(STD_OUTPUT_HANDLE, text);
    SetConsoleTextAttribute(terminal, info.wAttributes);
    return written;
}

static bool writeOutput(const QString& text, Colour colour)
{
    // A pipe may block, and must not block other writers.
    if (!isTerminal(GetStdHandle(STD_OUTPUT_HANDLE)))
        return writeTo(STD_OUTPUT_HANDLE, text);
    const std::lock_guard<std::mutex> guard(terminalMutex);
    if (lineInPlace.isEmpty())
        return writeColoured(text, colour);
    writeInPlace(QString());
    const bool written = writeColoured(text, colour);
    writeInPlace(lineInPlace);
    return written;
}

bool print(const QString& text, Colour colour)
{
    if (writeOutput(text, colour))
        return true;
    switch (const DWORD error = GetLastError()) {
    case ERROR_BROKEN_PIPE:
    case ERROR_NO_DATA:
    case ERROR_PIPE_NOT_CONNECTED:
        return false;
    default:
        throw Failure{ExitStatus::Failed,
                      QStringLiteral("Standard output cannot be written: %1")
                          .arg(sentence(qt_error_string(static_cast<int>(error))))};
    }
}

int outputWidth()
{
    return widthOf(STD_OUTPUT_HANDLE);
}

void say(const QString& line)
{
    const std::lock_guard<std::mutex> guard(terminalMutex);
    writeTo(STD_ERROR_HANDLE,
            (lineInPlace.isEmpty() ? QString() : QStringLiteral("\n")) + line + QLatin1Char('\n'));
    lineInPlace.clear();
}

bool errorIsTerminal()
{
    return isTerminal(GetStdHandle(STD_ERROR_HANDLE));
}

int errorWidth()
{
    return widthOf(STD_ERROR_HANDLE);
}

void showInPlace(const QString& line)
{
    const std::lock_guard<std::mutex> guard(terminalMutex);
    writeInPlace(line);
    lineInPlace = line;
}

void leaveTerminal()
{
    for (int waited = 0; !terminalMutex.try_lock(); ++waited) {
        if (waited == kLeaveMs)
            return;
        Sleep(1);
    }
    if (!lineInPlace.isEmpty())
        writeInPlace(QString());
}
