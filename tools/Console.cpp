#include "tools/Console.h"

#include "tools/Failure.h"
#include "tools/Text.h"

#include <windows.h>

static bool isTerminal(HANDLE stream)
{
    DWORD mode = 0;
    return GetConsoleMode(stream, &mode);
}

// False, with the reason in GetLastError(), if not all could be written.
static bool writeTo(DWORD which, const QString& text)
{
    const HANDLE stream = GetStdHandle(which);
    DWORD written = 0;
    if (isTerminal(stream))
        return WriteConsoleW(stream, text.utf16(), static_cast<DWORD>(text.size()), &written,
                             nullptr);
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
    writeTo(STD_ERROR_HANDLE, line + QLatin1Char('\n'));
}

bool errorIsTerminal()
{
    return isTerminal(GetStdHandle(STD_ERROR_HANDLE));
}

void showInPlace(const QString& line)
{
    // One column is left free: in the last one some consoles begin a new line.
    const int width = 79;
    const QString padded = line.left(width).leftJustified(width);
    writeTo(STD_ERROR_HANDLE,
            QLatin1Char('\r') + padded + (line.isEmpty() ? QStringLiteral("\r") : QString()));
}
