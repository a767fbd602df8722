#ifndef LUMORA_WINMIDI_CALLBACKGATE_H
#define LUMORA_WINMIDI_CALLBACKGATE_H

#include <atomic>

class TWinMIDI;
struct TWinMIDIPrivate;

/// Admits WinMM's callbacks to a transport. A driver may call back after its port was closed, and
/// at any time if it refused to close. So a callback uses its transport only through the gate of
/// one that still lives.
///
/// Gates are reused but never freed. There are as many as there were transports at one time.
class CallbackGate
{
public:
    /// Opens a gate for a transport whose pusher thread `dataEvent` wakes. Throws std::bad_alloc
    /// without memory.
    static CallbackGate* open(TWinMIDI* transport, TWinMIDIPrivate* device, void* dataEvent);

    /// Admits no more callbacks and waits for those inside. False if one does not leave: what it
    /// may access must then stay valid, and the gate is not reused.
    bool close();

    /// Waits for the callbacks inside, but no longer than a callback can take: its thread may have
    /// been killed. False if one is still inside.
    bool awaitCallbacks() const;

    /// Whether a callback is inside.
    bool isBusy() const { return callbacks != 0; }

    /// A callback in progress. It counts itself first and checks second, and close() does the
    /// reverse: one of the two sees the other.
    class Call
    {
    public:
        explicit Call(CallbackGate* gate) : gate(gate) { ++gate->callbacks; }
        ~Call() { --gate->callbacks; } // the callback's last access

        Call(const Call&) = delete;
        Call& operator=(const Call&) = delete;

        bool isFor(const TWinMIDI* called) const { return gate->transport == called; }

    private:
        CallbackGate* const gate;
    };

    /// Calls `callback(gate)` in a Call for the gate of `transport`, if there is one.
    template <class Callback>
    static void enter(const TWinMIDI* transport, const Callback& callback)
    {
        for (CallbackGate* gate = first; gate; gate = gate->next) {
            if (gate->transport.load(std::memory_order_relaxed) != transport)
                continue;
            const Call call(gate);
            if (call.isFor(transport))
                callback(*gate);
            return;
        }
    }

    /// Calls `callback(gate)` in a Call for every open gate, until it returns true.
    template <class Callback>
    static void enterEach(const Callback& callback)
    {
        for (CallbackGate* gate = first; gate; gate = gate->next) {
            const Call call(gate);
            const TWinMIDI* const transport = gate->transport;
            if (transport && callback(*gate))
                return;
        }
    }

    TWinMIDIPrivate* device = nullptr; ///< valid in a Call
    void* dataEvent = nullptr;         ///< valid in a Call

private:
    CallbackGate() = default;

    static std::atomic<CallbackGate*> first;

    std::atomic<TWinMIDI*> transport{nullptr}; ///< null: closed
    std::atomic<bool> taken{true};
    std::atomic<int> callbacks{0};
    CallbackGate* next = nullptr;
};

/// Keeps this library loaded for the life of the process, since a driver that was not closed may
/// call back at any time.
void keepModuleLoaded();

#endif
