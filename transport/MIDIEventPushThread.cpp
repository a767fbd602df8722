#include "transport/MIDIEventPushThread.h"

#include "transport/MIDITransport.h"

#include <windows.h>

TMIDIEventPushThread::TMIDIEventPushThread(TMIDITransport* transport)
    : transport(transport), stopRequested(false)
{}

TMIDIEventPushThread::~TMIDIEventPushThread() = default;

void TMIDIEventPushThread::run()
{
    TMIDIReaderRefConInterface* const reader = transport;
    while (!stopRequested) {
        // The result is not looked at: without an event the wait fails at once, and the input is
        // delivered all the same, by draining in a tight loop.
        WaitForMultipleObjects(1, &transport->dataEvent, TRUE, INFINITE);
        reader->read(0, nullptr, true, false);
    }
}
