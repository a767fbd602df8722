#include "tools/StatusLine.h"

#include "tools/Console.h"
#include "tools/Interruption.h"

#include <algorithm>
#include <utility>

using std::chrono::steady_clock;

StatusLine::StatusLine(Receiver& receiver, std::function<QString()> text)
    : receiver(receiver), text(std::move(text)), shown(errorIsTerminal()),
      drawAt(shown ? steady_clock::now() : time_point::max())
{}

bool StatusLine::next(ReceivedMessage* message, time_point deadline)
{
    for (;;) {
        if (steady_clock::now() >= drawAt) {
            showInPlace(text());
            drawAt = steady_clock::now() + kRedraw;
        }
        if (receiver.next(message, std::min(deadline, drawAt)))
            return true;
        if (interrupted() || steady_clock::now() >= deadline)
            return false;
    }
}

void StatusLine::clear() const
{
    if (shown)
        showInPlace(QString());
}
