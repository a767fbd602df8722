// An open output: sends what the client gives it down the wire, at the wire's pace, and finishes
// its headers.
#pragma once

#include "workbench/device/InputPort.h"

#include <list>

namespace device {

// What an output's messages go into; each host has its own. Calls of connect() and take() come from
// one thread at a time if the port has a thread of its own.
class Wire
{
public:
    virtual ~Wire() = default;

    // The client's sends, as they are accepted. With the port's lock held.
    virtual void noteShort(DWORD) {}
    virtual void noteLong(const MIDIHDR&) {}

    // Looks who is at the far end. True if that takes everything at once.
    virtual bool connect() { return true; }
    // Returns when the piece is delivered; false if it is lost.
    virtual bool take(const MIDIPiece& piece) = 0;
    // Ends a take() that is under way, and further ones until the next connect(). From any thread.
    virtual void cancel() {}
};

class OutputPort : public Port
{
public:
    OutputPort(const Settings& settings, std::unique_ptr<Wire> wire, Callback callback);
    ~OutputPort() override;

    // The client's calls. With a thread of the port's own neither waits for the wire.
    MMRESULT sendShort(DWORD word);
    MMRESULT sendLong(MIDIHDR* header, DWORD_PTR size);
    // Completes every long message; short messages that wait for their turn still go out.
    MMRESULT reset();

    // The far end takes nothing, as a service that hangs, until told otherwise. Sends of the
    // Windows 11 kind then run into their time-out.
    void stall(bool on);

    // To Thread only before the opening.
    void setCompletion(Completion to) { completion.store(to, std::memory_order_relaxed); }
    // Plays the oldest message that waits. Returns its header, null if there is none or a reset
    // finishes it meanwhile.
    MIDIHDR* completeNext();

private:
    // Something that waits for its turn on the wire, or plays. A long message without a header has
    // been taken away by a reset.
    struct Item
    {
        Item(MIDIHDR* itsHeader, DWORD itsWord, std::int64_t itsTime);
        bool isShort() const { return bytes.empty(); }
        bool isTakenAway() const { return !isShort() && !header; }

        MIDIHDR* header;
        DWORD word;
        std::vector<unsigned char> bytes; // a copy: the header goes back before all is sent
        std::int64_t queuedAt;
        bool plays = false; // whoever plays it removes it
    };

    // Of the Windows 11 kind: sends are over when they return.
    MMRESULT sendShortNow(DWORD word);
    MMRESULT sendLongNow(MIDIHDR* header, DWORD_PTR size);
    bool awaitService(Lock& held);

    DWORD work(Lock& held) override;
    std::size_t queuedHeaders() const override;
    void discardWork() override;

    // With the lock held.
    void queue(Lock& held, MIDIHDR* header, DWORD word);
    MIDIHDR* play(Lock& held, std::list<Item>::iterator item);
    void transmitShort(Lock& held, const Item& item);
    bool transmitLong(Lock& held, const Item& item);
    bool awaitWire(Lock& held, const Item& item, std::size_t length);
    void carry(Lock& held, const std::vector<MIDIPiece>& pieces);

    const std::unique_ptr<Wire> wire;
    std::atomic<Completion> completion;
    std::list<Item> items;
    MIDIByteStream stream;
    std::int64_t wireFreeAt = 0;

    bool stalled = false;
    bool timedOut = false; // and the service has not moved since
};

} // namespace device
