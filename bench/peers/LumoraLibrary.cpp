// Ours, as a host uses it. Setting: "default".

#include "Library.h"
#include "ports/MIDIPortAccessor.h"
#include "transport/MIDITransport.h"
#include "winmidi/WinMIDI.h"

namespace {

class LumoraLibrary final : public Library, private TMIDIReaderRefConInterface
{
public:
    explicit LumoraLibrary(Observer& observer)
        : observer(observer), accessor(MIDIPortAccessor("Lumora", "Side by side")),
          transport(MIDITransportInstance(accessor))
    {
        transport.registerMIDIobserver(this);
    }

    ~LumoraLibrary() override
    {
        transport.Release();
        accessor->Release();
    }

    bool openInput() override { return transport.openInput(1) != nullptr; }
    void closeInput() override { transport.closeInput(); }
    bool openOutput() override { return transport.openOutput(1) != nullptr; }

    bool send(const unsigned char* bytes, std::size_t length) override
    {
        return transport.outputData(static_cast<int>(length), bytes);
    }

private:
    int read(int length, const void* data, bool, bool) override
    {
        observer.receive(static_cast<const unsigned char*>(data), static_cast<std::size_t>(length));
        return length;
    }

    Observer& observer;
    IMIDIPortAccessor* const accessor;
    TMIDITransport& transport;
};

} // namespace

std::unique_ptr<Library> makeLibrary(const std::string& setting, Observer& observer)
{
    if (setting != "default")
        return nullptr;
    return std::make_unique<LumoraLibrary>(observer);
}
