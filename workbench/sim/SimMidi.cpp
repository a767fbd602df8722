// WinMM's promises about handles, headers and callbacks.
#include "SimMidi.h"

namespace sim::internal {

namespace {

// ---- Open and close -----------------------------------------------------------------------------

template <typename Handle>
MMRESULT openPort(Handle* handle, UINT index, DWORD_PTR callback, DWORD_PTR instance, DWORD flags)
{
    if (!handle)
        return MMSYSERR_INVALPARAM;
    const DWORD type = flags & CALLBACK_TYPEMASK;
    if (type != CALLBACK_FUNCTION && type != CALLBACK_NULL)
        return MMSYSERR_INVALFLAG;
    if (type == CALLBACK_FUNCTION && callback == 0)
        return MMSYSERR_INVALPARAM;
    Device<Handle>* const device = findDevice<Handle>(index);
    if (!device)
        return MMSYSERR_BADDEVICEID;
    if (device->options.openResult != MMSYSERR_NOERROR)
        return device->options.openResult;

    auto& direction = directionOf(Handle{});
    Port<Handle>* port = nullptr;
    {
        const std::lock_guard<std::mutex> guard(device->opening);
        const auto end = device->clients.begin() + device->options.maximumClients;
        const auto place = std::find(device->clients.begin(), end, nullptr);
        if (place == end)
            return MMSYSERR_ALLOCATED;
        const std::size_t number = direction.portCount.fetch_add(1);
        if (number >= kMaximumPorts)
            stopWith("out of ports; reset() makes them anew");
        port = new Port<Handle>(*device, type == CALLBACK_FUNCTION ? callback : 0, instance);
        port->handle = reinterpret_cast<Handle>(Messages<Handle>::firstHandle + number * 4);
        direction.ports[number].store(port, std::memory_order_release);
        place->store(port, std::memory_order_release);
    }
    direction.openPorts.fetch_add(1, std::memory_order_relaxed);
    *handle = port->handle;
    const CallbackInProgress inProgress(port->callbacksInProgress, CallbackInProgress::kUnordered);
    port->call(Messages<Handle>::open, 0, 0);
    return MMSYSERR_NOERROR;
}

template <typename Handle>
MMRESULT closePort(Handle handle)
{
    Port<Handle>* const port = findPort(handle);
    if (!port)
        return MMSYSERR_INVALHANDLE;
    {
        const std::lock_guard<std::mutex> guard(port->lock);
        if (!port->queue.empty())
            return MIDIERR_STILLPLAYING;
        if (!port->isOpen.exchange(false))
            return MMSYSERR_INVALHANDLE;
        port->isStarted.store(false);
        port->queue.shrink_to_fit();
    }
    {
        const std::lock_guard<std::mutex> guard(port->device.opening);
        std::replace(port->device.clients.begin(), port->device.clients.end(), port,
                     static_cast<Port<Handle>*>(nullptr));
    }
    directionOf(handle).openPorts.fetch_sub(1, std::memory_order_relaxed);
    if (port->device.kind.load(std::memory_order_relaxed) == DriverKind::WaitsInClose)
        CallbackInProgress::waitForOthers(port->callbacksInProgress);
    const CallbackInProgress inProgress(port->callbacksInProgress, CallbackInProgress::kUnordered);
    port->call(Messages<Handle>::close, 0, 0);
    return MMSYSERR_NOERROR;
}

// ---- Headers ------------------------------------------------------------------------------------

template <typename Handle>
MMRESULT prepare(Handle handle, MIDIHDR* header, UINT size)
{
    if (!header || size < sizeof(MIDIHDR))
        return MMSYSERR_INVALPARAM;
    if (!findPort(handle))
        return MMSYSERR_INVALHANDLE;
    if (!header->lpData || header->dwBufferLength == 0)
        return MMSYSERR_INVALPARAM;
    if (flagsOf(*header) & MHDR_INQUEUE)
        return MIDIERR_STILLPLAYING;
    setFlags(*header, (flagsOf(*header) | MHDR_PREPARED) & ~MHDR_DONE);
    return MMSYSERR_NOERROR;
}

template <typename Handle>
MMRESULT unprepare(Handle handle, MIDIHDR* header, UINT size)
{
    if (!header || size < sizeof(MIDIHDR))
        return MMSYSERR_INVALPARAM;
    if (!findPort(handle))
        return MMSYSERR_INVALHANDLE;
    const DWORD flags = flagsOf(*header);
    if (flags & MHDR_INQUEUE)
        return MIDIERR_STILLPLAYING;
    setFlags(*header, flags & ~MHDR_PREPARED);
    return MMSYSERR_NOERROR;
}

// Puts a prepared header into the port's queue. The port's lock hands its contents to the driver.
template <typename Handle>
MMRESULT enqueue(Handle handle, MIDIHDR* header, UINT size)
{
    if (!header || size < sizeof(MIDIHDR))
        return MMSYSERR_INVALPARAM;
    Port<Handle>* const port = findPort(handle);
    if (!port)
        return MMSYSERR_INVALHANDLE;
    const std::lock_guard<std::mutex> guard(port->lock);
    if (!port->isOpen.load())
        return MMSYSERR_INVALHANDLE;
    const DWORD flags = flagsOf(*header);
    if (flags & MHDR_INQUEUE)
        return MIDIERR_STILLPLAYING;
    if ((flags & MHDR_PREPARED) == 0)
        return MIDIERR_UNPREPARED;
    if (!header->lpData || header->dwBufferLength == 0)
        return MMSYSERR_INVALPARAM;
    if constexpr (std::is_same_v<Handle, HMIDIIN>)
        header->dwBytesRecorded = 0;
    setFlags(*header, (flags & ~MHDR_DONE) | MHDR_INQUEUE);
    port->queue.push_back(header);
    return MMSYSERR_NOERROR;
}

// Stops the port and hands every queued header back, in order.
template <typename Handle>
MMRESULT resetPort(Handle handle)
{
    Port<Handle>* const port = findPort(handle);
    if (!port)
        return MMSYSERR_INVALHANDLE;
    port->isStarted.store(false);
    if (port->device.kind.load(std::memory_order_relaxed) == DriverKind::WaitsInReset)
        CallbackInProgress::waitForOthers(port->callbacksInProgress);
    std::deque<MIDIHDR*> returned;
    {
        const std::lock_guard<std::mutex> guard(port->lock);
        returned.swap(port->queue);
        for (MIDIHDR* header : returned) {
            if constexpr (std::is_same_v<Handle, HMIDIIN>)
                header->dwBytesRecorded = 0;
            finish(*header);
        }
    }
    const CallbackInProgress inProgress(port->callbacksInProgress, CallbackInProgress::kUnordered);
    for (const MIDIHDR* header : returned)
        port->call(Messages<Handle>::longDone, low32(header), port->stamp());
    return MMSYSERR_NOERROR;
}

// ---- Sending ------------------------------------------------------------------------------------

MMRESULT sendLong(HMIDIOUT handle, MIDIHDR* header, UINT size)
{
    Port<HMIDIOUT>* const port = findPort(handle);
    // Until it is queued the header is the caller's, so its bytes are noted before.
    const bool acceptable = port && header && size >= sizeof(MIDIHDR) && header->lpData &&
                            (flagsOf(*header) & (MHDR_INQUEUE | MHDR_PREPARED)) == MHDR_PREPARED;
    if (acceptable)
        noteSent(port->device, false, header->lpData, header->dwBufferLength, header);
    const MMRESULT result = enqueue(handle, header, size);
    if (result == MMSYSERR_NOERROR)
        finishAsOrdered(*port);
    return result;
}

MMRESULT sendShort(HMIDIOUT handle, DWORD message)
{
    Port<HMIDIOUT>* const port = findPort(handle);
    if (!port)
        return MMSYSERR_INVALHANDLE;
    unsigned char bytes[4];
    for (unsigned i = 0; i < 4; ++i)
        bytes[i] = static_cast<unsigned char>(message >> (8 * i));
    noteSent(port->device, true, bytes, sizeof bytes, nullptr);
    const int input = port->device.connectedInput.load(std::memory_order_acquire);
    if (input >= 0)
        shortMessage(input, message);
    return MMSYSERR_NOERROR;
}

} // namespace

} // namespace sim::internal

// ---- WinMM --------------------------------------------------------------------------------------

using namespace sim::internal;

MMRESULT midiInOpen(LPHMIDIIN handle, UINT device, DWORD_PTR callback, DWORD_PTR instance,
                    DWORD flags)
{
    return served(Entry(Function::midiInOpen, nullptr, nullptr, device, flags),
                  [&] { return openPort(handle, device, callback, instance, flags); });
}

MMRESULT midiOutOpen(LPHMIDIOUT handle, UINT device, DWORD_PTR callback, DWORD_PTR instance,
                     DWORD flags)
{
    return served(Entry(Function::midiOutOpen, nullptr, nullptr, device, flags),
                  [&] { return openPort(handle, device, callback, instance, flags); });
}

MMRESULT midiInClose(HMIDIIN handle)
{
    return served(Entry(Function::midiInClose, handle), [&] { return closePort(handle); });
}

MMRESULT midiOutClose(HMIDIOUT handle)
{
    return served(Entry(Function::midiOutClose, handle), [&] { return closePort(handle); });
}

MMRESULT midiInStart(HMIDIIN handle)
{
    return served(Entry(Function::midiInStart, handle), [&]() -> MMRESULT {
        Port<HMIDIIN>* const port = findPort(handle);
        if (!port)
            return MMSYSERR_INVALHANDLE;
        port->startTime.store(now(), std::memory_order_relaxed);
        port->isStarted.store(true);
        return MMSYSERR_NOERROR;
    });
}

MMRESULT midiInStop(HMIDIIN handle)
{
    return served(Entry(Function::midiInStop, handle), [&]() -> MMRESULT {
        Port<HMIDIIN>* const port = findPort(handle);
        if (!port)
            return MMSYSERR_INVALHANDLE;
        port->isStarted.store(false);
        return MMSYSERR_NOERROR;
    });
}

MMRESULT midiInReset(HMIDIIN handle)
{
    return served(Entry(Function::midiInReset, handle), [&] { return resetPort(handle); });
}

MMRESULT midiOutReset(HMIDIOUT handle)
{
    return served(Entry(Function::midiOutReset, handle), [&] { return resetPort(handle); });
}

MMRESULT midiInPrepareHeader(HMIDIIN handle, LPMIDIHDR header, UINT size)
{
    return served(Entry(Function::midiInPrepareHeader, handle, header, size),
                  [&] { return prepare(handle, header, size); });
}

MMRESULT midiOutPrepareHeader(HMIDIOUT handle, LPMIDIHDR header, UINT size)
{
    return served(Entry(Function::midiOutPrepareHeader, handle, header, size),
                  [&] { return prepare(handle, header, size); });
}

MMRESULT midiInUnprepareHeader(HMIDIIN handle, LPMIDIHDR header, UINT size)
{
    return served(Entry(Function::midiInUnprepareHeader, handle, header, size),
                  [&] { return unprepare(handle, header, size); });
}

MMRESULT midiOutUnprepareHeader(HMIDIOUT handle, LPMIDIHDR header, UINT size)
{
    return served(Entry(Function::midiOutUnprepareHeader, handle, header, size),
                  [&] { return unprepare(handle, header, size); });
}

MMRESULT midiInAddBuffer(HMIDIIN handle, LPMIDIHDR header, UINT size)
{
    return served(Entry(Function::midiInAddBuffer, handle, header, size),
                  [&] { return enqueue(handle, header, size); });
}

MMRESULT midiOutLongMsg(HMIDIOUT handle, LPMIDIHDR header, UINT size)
{
    return served(Entry(Function::midiOutLongMsg, handle, header, size),
                  [&] { return sendLong(handle, header, size); });
}

MMRESULT midiOutShortMsg(HMIDIOUT handle, DWORD message)
{
    return served(Entry(Function::midiOutShortMsg, handle, nullptr, message),
                  [&] { return sendShort(handle, message); });
}
