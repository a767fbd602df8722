#ifndef LUMORA_TOOLS_STATUSLINE_H
#define LUMORA_TOOLS_STATUSLINE_H

#include "tools/Receiver.h"

#include <QString>
#include <functional>

/// Takes messages from a receiver and meanwhile shows, if standard error is a terminal, how that
/// goes. The line goes with the object.
class StatusLine
{
public:
    using time_point = std::chrono::steady_clock::time_point;

    /// `text` gives the line as it is now.
    StatusLine(Receiver& receiver, std::function<QString()> text);
    ~StatusLine() { clear(); }
    StatusLine(const StatusLine&) = delete;
    StatusLine& operator=(const StatusLine&) = delete;

    /// As Receiver::next().
    bool next(ReceivedMessage* message, time_point deadline);

    /// Takes the line off the terminal, until the next call of next().
    void clear() const;

private:
    Receiver& receiver;
    const std::function<QString()> text;
    const bool shown;
    time_point drawAt;
};

#endif
