#ifndef LUMORA_TESTS_UNIT_TRANSPORTTESTACCESS_H
#define LUMORA_TESTS_UNIT_TRANSPORTTESTACCESS_H

#include "transport/MIDIEventPushThread.h"
#include "transport/MIDIObserverBlock.h"
#include "transport/MIDITransport.h"
#include "winmidi/WinMIDI.h"
#include "winmidi/WinMIDIPrivate.h"

#include <vector>

using lumora::MutexLocker;
using lumora::RecursiveMutex;
using lumora::RecursiveMutexLocker;
using lumora::TransportTestAccess;

using Bytes = std::vector<unsigned char>;

/// What tests and benches see of the objects' insides.
struct lumora::TransportTestAccess
{
    static int frame(TMIDITransport& transport, const Bytes& chunk, bool strictStart = true,
                     bool spare = false)
    {
        return transport.TMIDITransport::read(static_cast<int>(chunk.size()), chunk.data(),
                                              strictStart, spare);
    }
    static int frame(TMIDITransport& transport, int length, const void* data)
    {
        return transport.TMIDITransport::read(length, data, true, false);
    }
    static void start(TMIDITransport& transport) { transport.startPusherThread(); }
    static void stop(TMIDITransport& transport) { transport.stopPusherThread(); }
    static TMIDIEventPushThread* pusher(TMIDITransport& transport) { return transport.pusher; }
    static HANDLE dataEvent(TMIDITransport& transport) { return transport.dataEvent; }
    static TMIDIObserverBlock& observerBlock(TMIDITransport& transport)
    {
        return *transport.observerBlock;
    }

    static TWinMIDIPrivate& device(TMIDITransport& transport)
    {
        return *static_cast<TWinMIDI&>(transport).d;
    }
    static bool hasDevice(TMIDITransport& transport)
    {
        return static_cast<TWinMIDI&>(transport).d != nullptr;
    }
    static int drain(TMIDITransport& transport, bool strictStart = true)
    {
        return static_cast<TWinMIDI&>(transport).read(0, nullptr, strictStart, false);
    }
    static bool outputData(TMIDITransport& transport, int length, unsigned char* data,
                           unsigned int status)
    {
        return static_cast<TWinMIDI&>(transport).outputData(length, data, status);
    }
    static bool outputLongData(TMIDITransport& transport, int length, unsigned char* data,
                               unsigned int status)
    {
        return static_cast<TWinMIDI&>(transport).outputLongData(length, data, status);
    }
    static bool outputShortData(TMIDITransport& transport, int length, const unsigned char* data,
                                unsigned int status)
    {
        return static_cast<TWinMIDI&>(transport).outputShortData(length, data, status);
    }
    static void midiInProc(TMIDITransport& transport, UINT message, DWORD param1,
                           HMIDIIN handle = nullptr)
    {
        TWinMIDI::MidiInProc(handle, message,
                             reinterpret_cast<DWORD_PTR>(static_cast<TWinMIDI*>(&transport)),
                             param1, 0);
    }
    /// What WinMM was given for its callback, for calls that come after the transport's end.
    static DWORD_PTR instance(TMIDITransport& transport)
    {
        return reinterpret_cast<DWORD_PTR>(static_cast<TWinMIDI*>(&transport));
    }
    static void midiInProc(DWORD_PTR instance, UINT message, DWORD param1)
    {
        TWinMIDI::MidiInProc(nullptr, message, instance, param1, 0);
    }
    static void midiOutProc(UINT message, DWORD param1)
    {
        TWinMIDI::MidiOutProc(nullptr, message, 0, param1, 0);
    }
};

#endif
