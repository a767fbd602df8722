#include "tools/Console.h"

#include "tools/Failure.h"
#include "tools/Text.h"

#include <algorithm>
#include <mutex>
#include <windows.h>

// What a console takes at once is limited, in older systems to 64 KB and less.
static const int kConsoleUnits = 8192;

// The main thread, the progress bar's and the system's, which tells of Ctrl-C, write.
static std::mutex errorMutex;   // guards what follows and the order of what is written
static bool barIsShown = false; // the cursor stands behind it

static bool isTerminal(HANDLE stream)
{
    DWORD mode = 0;
    return GetConsoleMode(stream, &mode);
}

// This and the next: false, with the reason in GetLastError(), if not all could be written.
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

bool print(const QString& text)
{
    if (writeTo(STD_OUTPUT_HANDLE, text))
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

void say(const QString& line)
{
    const std::lock_guard<std::mutex> guard(errorMutex);
    writeTo(STD_ERROR_HANDLE,
            (barIsShown ? QStringLiteral("\n") : QString()) + line + QLatin1Char('\n'));
    barIsShown = false;
}

bool errorIsTerminal()
{
    return isTerminal(GetStdHandle(STD_ERROR_HANDLE));
}

static int terminalWidth()
{
    CONSOLE_SCREEN_BUFFER_INFO info;
    return GetConsoleScreenBufferInfo(GetStdHandle(STD_ERROR_HANDLE), &info) ? info.dwSize.X : 80;
}

void showInPlace(const QString& line)
{
    const std::lock_guard<std::mutex> guard(errorMutex);
    // One column is left free: in the last one some consoles begin a new line.
    const int width = std::max(0, terminalWidth() - 1);
    const QString padded = line.left(width).leftJustified(width);
    writeTo(STD_ERROR_HANDLE,
            QLatin1Char('\r') + padded + (line.isEmpty() ? QStringLiteral("\r") : QString()));
    barIsShown = !line.isEmpty();
}
