#ifndef LUMORA_WINMIDI_CALLBACKGATE_H
#define LUMORA_WINMIDI_CALLBACKGATE_H

#include <atomic>

class TWinMIDI;
struct TWinMIDIPrivate;

/// What stands between WinMM's callbacks and a transport. A driver may call back after it was
/// closed, and at any time if it refused to close. So no callback follows the pointer that it was
/// given before it has found the gate of a transport that still lives.
///
/// Gates are never freed, only used again, and only as gates. There are as many as there were
/// transports at one time.
class CallbackGate
{
public:
    /// Opens a gate for a transport. `dataEvent` is the one that wakes its pusher thread. Throws
    /// std::bad_alloc without memory.
    static CallbackGate* open(TWinMIDI* transport, TWinMIDIPrivate* device, void* dataEvent);

    /// Lets no callback in any more and waits for those that are in. False if one does not leave:
    /// whatever it may touch must then stay, and the gate stays with it.
    bool close();

    /// Waits for the callbacks that are in now, but no longer than a callback can take. Its thread
    /// may have been ended from outside.
    bool awaitCallbacks() const;

    /// Whether a callback is in.
    bool isBusy() const { return callbacks != 0; }

    /// A callback in progress. It is counted first and looks second, the other way round than
    /// close() does it: one of the two sees the other.
    class Call
    {
    public:
        explicit Call(CallbackGate* gate) : gate(gate) { ++gate->callbacks; }
        ~Call() { --gate->callbacks; } // the callback's last touch

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

    std::atomic<TWinMIDI*> transport{nullptr}; ///< null: nobody is let in
    std::atomic<bool> taken{true};
    std::atomic<int> callbacks{0};
    CallbackGate* next = nullptr;
};

/// Keeps this library loaded for the life of the process, since a driver that was not closed may
/// call back at any time.
void keepModuleLoaded();

#endif
