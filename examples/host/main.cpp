// A small host: lists the MIDI ports, opens an input and an output, asks the instrument for its
// identity, and prints the answer.
//
//     host            lists the ports
//     host IN OUT     opens input number IN and output number OUT, and asks

#include "ports/MIDIPortAccessor.h"
#include "transport/MIDITransport.h"
#include "winmidi/WinMIDI.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

using Message = std::vector<unsigned char>;

/// Passes messages from the transport's pusher thread to the host's. The bytes are valid only
/// during the call, and delivery waits for it: copy and return.
class Inbox final : public TMIDIReaderRefConInterface
{
public:
    int read(int length, const void* data, bool, bool) override
    {
        const unsigned char* const bytes = static_cast<const unsigned char*>(data);
        {
            const std::lock_guard<std::mutex> guard(mutex);
            messages.emplace_back(bytes, bytes + length);
        }
        arrived.notify_one();
        return length;
    }

    /// Takes the oldest message; empty if none arrives in time.
    Message take(std::chrono::milliseconds time)
    {
        std::unique_lock<std::mutex> guard(mutex);
        if (!arrived.wait_for(guard, time, [this] { return !messages.empty(); }))
            return Message();
        const Message message = messages.front();
        messages.pop_front();
        return message;
    }

private:
    std::mutex mutex;
    std::condition_variable arrived;
    std::deque<Message> messages;
};

/// Accessors and transports are released, never deleted.
struct Release
{
    template <class Object>
    void operator()(Object* object) const
    {
        object->Release();
    }
};

// Port numbers change when devices come and go. An editor stores the identifier, and gets the
// number with getInpDescriptorPort() or getOutDescriptorPort() when it opens the port.
static void listPorts(const TMIDITransport& midi)
{
    for (int number = 1; number <= midi.numberOfInputs(); ++number) {
        const QUuid id = midi.getInpPortDescriptor(number);
        std::printf("input  %d  %s  %s\n", number, qPrintable(id.toString()),
                    qPrintable(midi.friendlyName(id)));
    }
    for (int number = 1; number <= midi.numberOfOutputs(); ++number) {
        const QUuid id = midi.getOutPortDescriptor(number);
        std::printf("output %d  %s  %s\n", number, qPrintable(id.toString()),
                    qPrintable(midi.friendlyName(id)));
    }
}

static bool askWhoIsThere(TMIDITransport& midi, Inbox& inbox, int input, int output)
{
    if (!midi.openInput(input) || !midi.openOutput(output)) {
        std::fprintf(stderr, "Input %d or output %d would not open.\n", input, output);
        return false;
    }
    const unsigned char identityRequest[] = {0xF0, 0x7E, 0x7F, 0x06, 0x01, 0xF7};
    if (!midi.outputData(sizeof identityRequest, identityRequest)) {
        std::fprintf(stderr, "Output %d refused the request.\n", output);
        return false;
    }
    const Message answer = inbox.take(std::chrono::seconds(2));
    if (answer.empty()) {
        std::fprintf(stderr, "Nobody answered.\n");
        return false;
    }
    std::printf("received %d bytes:", static_cast<int>(answer.size()));
    for (const unsigned char byte : answer)
        std::printf(" %02X", byte);
    std::printf("\n");
    return true;
}

int main(int argc, char** argv)
{
    // Destroyed in the opposite order: the transport closes its ports, then the accessor stores the
    // identifiers of new ones. The observer outlives both.
    Inbox inbox;
    const std::unique_ptr<IMIDIPortAccessor, Release> accessor(
        MIDIPortAccessor("My Company", "My Editor"));
    TMIDITransport& midi = MIDITransportInstance(accessor.get());
    if (!midi.valid()) {
        std::fprintf(stderr, "Not enough memory for a transport.\n");
        return 1;
    }
    const std::unique_ptr<TMIDITransport, Release> owner(&midi);

    listPorts(midi);
    if (argc < 3)
        return 0;
    midi.registerMIDIobserver(&inbox); // before the input opens
    return askWhoIsThere(midi, inbox, std::atoi(argv[1]), std::atoi(argv[2])) ? 0 : 1;
}
