// A small host: lists the MIDI ports, opens an input and an output, asks the instrument behind them
// who it is, and prints what it answers.
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

/// Takes messages on the transport's delivery thread and hands them to the host's own. The bytes
/// are valid during the call only, and the next message waits for its end: copy and return.
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

    /// The oldest message; empty if none comes in time.
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

/// Neither an accessor nor a transport is deleted: its own Release() ends it.
struct Release
{
    template <class Object>
    void operator()(Object* object) const
    {
        object->Release();
    }
};

// Port numbers change when devices come and go. What an editor keeps is the identifier, and the
// number is looked up with getInpDescriptorPort() or getOutDescriptorPort() when it opens the port.
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
    // Released in the opposite order: the transport, which closes its ports, then the accessor,
    // which stores the identifiers of new ports. The observer outlives both.
    Inbox inbox;
    const std::unique_ptr<IMIDIPortAccessor, Release> accessor(
        MIDIPortAccessor("My Company", "My Editor"));
    TMIDITransport& midi = MIDITransportInstance(accessor.get());
    if (!midi.valid()) {
        std::fprintf(stderr, "There is no memory for a transport.\n");
        return 1;
    }
    const std::unique_ptr<TMIDITransport, Release> owner(&midi);

    listPorts(midi);
    if (argc < 3)
        return 0;
    midi.registerMIDIobserver(&inbox); // before the input opens
    return askWhoIsThere(midi, inbox, std::atoi(argv[1]), std::atoi(argv[2])) ? 0 : 1;
}
