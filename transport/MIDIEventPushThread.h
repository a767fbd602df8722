#ifndef LUMORA_TRANSPORT_MIDIEVENTPUSHTHREAD_H
#define LUMORA_TRANSPORT_MIDIEVENTPUSHTHREAD_H

#include <QThread>
#include <atomic>

class TMIDITransport;

/// Delivers a transport's input: sleeps until the transport's event is signalled, then makes the
/// transport drain its queue. Ends after a drain if a stop was requested.
class TMIDIEventPushThread : public QThread
{
public:
    explicit TMIDIEventPushThread(TMIDITransport* transport);
    ~TMIDIEventPushThread() override;

    /// Any thread. Takes effect at the next signal of the event.
    void requestStop() { stopRequested = true; }

protected:
    void run() override;

private:
    TMIDITransport* transport;
    std::atomic<bool> stopRequested;
};

#endif
