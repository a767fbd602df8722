#include "ports/MIDIPortAccessor.h"

#include <algorithm>
#include <windows.h>

#include <mmsystem.h>

// A driver's device name: zero-terminated unless it fills the whole field.
static QString deviceName(const WCHAR (&name)[MAXPNAMELEN])
{
    const WCHAR* const end = std::find(name, name + MAXPNAMELEN, WCHAR(0));
    return QString(reinterpret_cast<const QChar*>(name), static_cast<int>(end - name));
}

WinIMIDIPortAccessor::WinIMIDIPortAccessor(const QString& organization, const QString& application)
    : UniIMIDIPortAccessor(organization, application)
{}

WinIMIDIPortAccessor::~WinIMIDIPortAccessor() = default;

QString WinIMIDIPortAccessor::systemPortName(int index, bool output)
{
    const UINT_PTR device = static_cast<UINT_PTR>(index);
    if (output) {
        MIDIOUTCAPSW caps = {}; // some drivers fill nothing and report success
        if (midiOutGetDevCapsW(device, &caps, sizeof caps) == MMSYSERR_NOERROR)
            return deviceName(caps.szPname);
    } else {
        MIDIINCAPSW caps = {};
        if (midiInGetDevCapsW(device, &caps, sizeof caps) == MMSYSERR_NOERROR)
            return deviceName(caps.szPname);
    }
    return QString();
}

int WinIMIDIPortAccessor::numberOfSystemPorts(bool output)
{
    return static_cast<int>(output ? midiOutGetNumDevs() : midiInGetNumDevs());
}

IMIDIPortAccessor* MIDIPortAccessor(const QString& organization, const QString& application)
{
    WinIMIDIPortAccessor* accessor = new WinIMIDIPortAccessor(organization, application);
    accessor->init();
    return accessor;
}
