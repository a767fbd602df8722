// The slice of <mmsystem.h> that the library touches, for native builds against the simulation.
#pragma once

#include "windows.h"

typedef UINT MMRESULT;
typedef UINT MMVERSION;

// Handles of the two directions are distinct pointer types, as under Windows' STRICT.
struct HMIDIIN__;
struct HMIDIOUT__;
typedef struct HMIDIIN__* HMIDIIN;
typedef struct HMIDIOUT__* HMIDIOUT;

constexpr UINT MAXPNAMELEN = 32;

#pragma pack(push, 1)
typedef struct midihdr_tag
{
    LPSTR lpData;
    DWORD dwBufferLength;
    DWORD dwBytesRecorded;
    DWORD_PTR dwUser;
    DWORD dwFlags;
    struct midihdr_tag* lpNext;
    DWORD_PTR reserved;
    DWORD dwOffset;
    DWORD_PTR dwReserved[8];
} MIDIHDR, *LPMIDIHDR;

typedef struct tagMIDIINCAPSW
{
    WORD wMid;
    WORD wPid;
    MMVERSION vDriverVersion;
    WCHAR szPname[MAXPNAMELEN];
    DWORD dwSupport;
} MIDIINCAPSW, *LPMIDIINCAPSW;

typedef struct tagMIDIOUTCAPSW
{
    WORD wMid;
    WORD wPid;
    MMVERSION vDriverVersion;
    WCHAR szPname[MAXPNAMELEN];
    WORD wTechnology;
    WORD wVoices;
    WORD wNotes;
    WORD wChannelMask;
    DWORD dwSupport;
} MIDIOUTCAPSW, *LPMIDIOUTCAPSW;
#pragma pack(pop)

static_assert(sizeof(MIDIHDR) == 112, "packed as on 64-bit Windows");
static_assert(offsetof(MIDIHDR, dwFlags) == 24 && offsetof(MIDIHDR, lpNext) == 28 &&
                  offsetof(MIDIHDR, dwOffset) == 44,
              "packed as on 64-bit Windows");
static_assert(sizeof(MIDIINCAPSW) == 76 && sizeof(MIDIOUTCAPSW) == 84,
              "the sizes that the capability queries are called with");

constexpr UINT MIM_OPEN = 0x3C1;
constexpr UINT MIM_CLOSE = 0x3C2;
constexpr UINT MIM_DATA = 0x3C3;
constexpr UINT MIM_LONGDATA = 0x3C4;
constexpr UINT MIM_ERROR = 0x3C5;
constexpr UINT MIM_LONGERROR = 0x3C6;
constexpr UINT MIM_MOREDATA = 0x3CC;
constexpr UINT MOM_OPEN = 0x3C7;
constexpr UINT MOM_CLOSE = 0x3C8;
constexpr UINT MOM_DONE = 0x3C9;

constexpr DWORD MHDR_DONE = 0x00000001;
constexpr DWORD MHDR_PREPARED = 0x00000002;
constexpr DWORD MHDR_INQUEUE = 0x00000004;

constexpr DWORD CALLBACK_NULL = 0x00000000;
constexpr DWORD CALLBACK_FUNCTION = 0x00030000;

constexpr MMRESULT MMSYSERR_NOERROR = 0;
constexpr MMRESULT MMSYSERR_ERROR = 1;
constexpr MMRESULT MMSYSERR_BADDEVICEID = 2;
constexpr MMRESULT MMSYSERR_ALLOCATED = 4;
constexpr MMRESULT MMSYSERR_INVALHANDLE = 5;
constexpr MMRESULT MMSYSERR_NODRIVER = 6;
constexpr MMRESULT MMSYSERR_NOMEM = 7;
constexpr MMRESULT MMSYSERR_INVALFLAG = 10;
constexpr MMRESULT MMSYSERR_INVALPARAM = 11;
constexpr MMRESULT MIDIERR_UNPREPARED = 64;
constexpr MMRESULT MIDIERR_STILLPLAYING = 65;

extern "C" {
DWORD WINAPI timeGetTime(void);

UINT WINAPI midiInGetNumDevs(void);
MMRESULT WINAPI midiInGetDevCapsW(UINT_PTR device, LPMIDIINCAPSW capabilities, UINT size);
MMRESULT WINAPI midiInOpen(HMIDIIN* handle, UINT device, DWORD_PTR callback, DWORD_PTR instance,
                           DWORD flags);
MMRESULT WINAPI midiInClose(HMIDIIN handle);
MMRESULT WINAPI midiInStart(HMIDIIN handle);
MMRESULT WINAPI midiInStop(HMIDIIN handle);
MMRESULT WINAPI midiInReset(HMIDIIN handle);
MMRESULT WINAPI midiInPrepareHeader(HMIDIIN handle, LPMIDIHDR header, UINT size);
MMRESULT WINAPI midiInUnprepareHeader(HMIDIIN handle, LPMIDIHDR header, UINT size);
MMRESULT WINAPI midiInAddBuffer(HMIDIIN handle, LPMIDIHDR header, UINT size);

UINT WINAPI midiOutGetNumDevs(void);
MMRESULT WINAPI midiOutGetDevCapsW(UINT_PTR device, LPMIDIOUTCAPSW capabilities, UINT size);
MMRESULT WINAPI midiOutOpen(HMIDIOUT* handle, UINT device, DWORD_PTR callback, DWORD_PTR instance,
                            DWORD flags);
MMRESULT WINAPI midiOutClose(HMIDIOUT handle);
MMRESULT WINAPI midiOutReset(HMIDIOUT handle);
MMRESULT WINAPI midiOutPrepareHeader(HMIDIOUT handle, LPMIDIHDR header, UINT size);
MMRESULT WINAPI midiOutUnprepareHeader(HMIDIOUT handle, LPMIDIHDR header, UINT size);
MMRESULT WINAPI midiOutLongMsg(HMIDIOUT handle, LPMIDIHDR header, UINT size);
MMRESULT WINAPI midiOutShortMsg(HMIDIOUT handle, DWORD message);
}
