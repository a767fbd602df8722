#ifndef LUMORA_TOOLS_FAILURE_H
#define LUMORA_TOOLS_FAILURE_H

#include <QString>

/// How the program ends.
enum class ExitStatus {
    Done = 0,
    Failed = 1,
    WrongUsage = 2,
    NoSuchPort = 3,
    NotOpened = 4,
    BadData = 5
};

/// Thrown by any step of a command that cannot go on; main() prints the message on standard error
/// and ends with the status.
struct Failure
{
    ExitStatus status;
    QString message;
};

#endif
