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
        // Ignores the result: without an event the wait fails at once, and draining in a tight loop
        // still delivers the input.
        WaitForMultipleObjects(1, &transport->dataEvent, TRUE, INFINITE);
        reader->read(0, nullptr, true, false);
    }
}
