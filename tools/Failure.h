#ifndef LUMORA_TOOLS_FAILURE_H
#define LUMORA_TOOLS_FAILURE_H

#include <QString>

/// The program's exit status.
enum class ExitStatus {
    Done = 0,
    Failed = 1,
    WrongUsage = 2,
    NoSuchPort = 3,
    NotOpened = 4,
    BadData = 5
};

/// Thrown by a command that cannot go on; main() prints the message to standard error and exits
/// with the status.
struct Failure
{
    ExitStatus status;
    QString message;
};

#endif
