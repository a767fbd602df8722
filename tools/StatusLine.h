#ifndef LUMORA_TOOLS_STATUSLINE_H
#define LUMORA_TOOLS_STATUSLINE_H

#include "tools/Receiver.h"

#include <QString>
#include <functional>

/// Takes messages from a receiver, and shows a status line meanwhile if standard error is a
/// terminal. The destructor clears the line.
class StatusLine
{
public:
    using time_point = std::chrono::steady_clock::time_point;

    /// `text` returns the current line.
    StatusLine(Receiver& receiver, std::function<QString()> text);
    ~StatusLine() { clear(); }
    StatusLine(const StatusLine&) = delete;
    StatusLine& operator=(const StatusLine&) = delete;

    /// See Receiver::next().
    bool next(ReceivedMessage* message, time_point deadline);

    /// Clears the line until the next call of next().
    void clear() const;

private:
    Receiver& receiver;
    const std::function<QString()> text;
    const bool shown;
    time_point drawAt;
};

#endif
