// Classes of a host's over the public ones, so that the compiler lays out what both share.
#include "ports/MIDIPortAccessor.h"
#include "transport/MIDIPortList.h"
#include "transport/MIDITransport.h"
#include "winmidi/WinMIDI.h"

struct HostAccessor : UniIMIDIPortAccessor
{
    HostAccessor(const QString& name) : UniIMIDIPortAccessor(name, name) {}
    QString systemPortName(int index, bool output) override;
    int numberOfSystemPorts(bool output) override;
};

struct HostTransport : TWinMIDI
{
    HostTransport() : TWinMIDI(nullptr) {}
};

struct HostProxy : TMIDIProxyInOut
{
    int read(int length, const void* data, bool strictStart, bool spare) override;
    void hostOperation1() override;
    void hostOperation2() override;
    void hostOperation3() override;
    void hostOperation4() override;
    void hostOperation5() override;
};

void use(const QString& name)
{
    HostAccessor accessor(name);
    HostTransport transport;
    HostProxy proxy;
}

const int sizes[] = {sizeof(TMIDIEvent), sizeof(TMIDIPortEntry), sizeof(TMIDIPortList)};
