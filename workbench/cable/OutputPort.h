// An open output: sends what the client gives it down the wire to the input that it feeds, at the
// wire's pace.

#ifndef LUMORA_CABLE_OUTPUTPORT_H
#define LUMORA_CABLE_OUTPUTPORT_H

#include "ByteStream.h"
#include "InputPort.h"
#include "Port.h"
#include "RemoteInput.h"

#include <atomic>

namespace cable {

class OutputPort : public Port, private MidiSink
{
public:
    OutputPort(const PortDescription& description, unsigned position, const Client& client);

    // The client's calls. Neither waits for the wire.
    DWORD sendShort(DWORD word);
    DWORD sendLong(MIDIHDR* header, DWORD_PTR size);

    // Completes every long message; short messages that wait for their turn still go out.
    DWORD reset();

private:
    // Something that waits for its turn on the wire.
    struct Item
    {
        MIDIHDR* header; // null for a short message
        DWORD word;
        std::vector<BYTE> bytes; // a copy: the header may be the client's again before all is sent
        LONGLONG queuedAt;
    };

    DWORD work(Lock& lock) override;
    DWORD queuedHeaders() const override;
    void endWork() override;
    void discardWork() override;

    void cancelSending();
    bool takeWire();
    void leaveWire();
    void addTally();

    // On the port's thread, without the lock.
    void transmit(const Item& item);
    void transmitLong(const Item& item);
    bool waitUntil(LONGLONG due);

    // By whoever has the wire: the thread while `sending_` is set, otherwise a client's call that
    // holds the lock.
    void shortMessage(DWORD word) override;
    void sysEx(const SysExPiece& piece) override;
    void sysExBroken() override;
    void noise(size_t bytes) override;

    std::deque<Item> queue_;
    bool sending_ = false; // the thread has the wire
    MIDIHDR* sendingHeader_ =
        nullptr; // of the long message being sent, unless a reset has completed it
    std::atomic<bool> cancelled_{false};
    Condition cancelWake_;

    // Belong to whoever has the wire.
    ByteStream stream_{*this};
    std::shared_ptr<InputPort> local_; // the input, if this process has it open
    RemoteInput remote_;               // otherwise
    LumoraCableCounters tally_ = {};   // not yet in the counters
    LONGLONG wireFreeAt_ = 0;          // microseconds
};

} // namespace cable

#endif
