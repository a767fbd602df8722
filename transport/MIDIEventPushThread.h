#ifndef LUMORA_TRANSPORT_MIDIEVENTPUSHTHREAD_H
#define LUMORA_TRANSPORT_MIDIEVENTPUSHTHREAD_H

#include <QThread>
#include <atomic>

class TMIDITransport;

/// The thread that delivers a transport's input: sleeps until the transport's event is signalled,
/// then has the transport drain its queue. It ends after a drain that finds a stop requested.
class TMIDIEventPushThread : public QThread
{
public:
    explicit TMIDIEventPushThread(TMIDITransport* transport);
    ~TMIDIEventPushThread() override;

    /// Any thread. Only a signal of the event behind it makes the thread look.
    void requestStop() { stopRequested = true; }

protected:
    void run() override;

private:
    TMIDITransport* transport;
    std::atomic<bool> stopRequested;
};

#endif
