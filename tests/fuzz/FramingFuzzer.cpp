// Sequences of chunks, whole, cut and meaningless, against a model of the framing.

#include "tests/fuzz/Fuzz.h"

#include <optional>

namespace {

struct Message
{
    Bytes bytes;
    bool strictStart;
};

bool operator==(const Message& a, const Message& b)
{
    return a.bytes == b.bytes && a.strictStart == b.strictStart;
}

/// The model: what one chunk makes an observer receive.
class Model
{
public:
    std::optional<Message> take(const Bytes& chunk, bool strictStart)
    {
        if (chunk.empty())
            return {};
        if (chunk[0] >= 0x80 && chunk[0] < 0xF0)
            return Message{chunk, true};
        if (!pending && strictStart && chunk[0] != 0xF0)
            return {};
        if (!pending)
            pending.emplace();
        pending->insert(pending->end(), chunk.begin(), chunk.end());
        if (chunk.back() != 0xF7)
            return {};
        Message message{*pending, strictStart};
        pending.reset();
        return message;
    }

private:
    std::optional<Bytes> pending;
};

/// A transport without a device: framing needs none, and inputs run ten times faster.
class BareTransport : public TMIDITransport
{
public:
    BareTransport() : TMIDITransport(nullptr) {}

    int numberOfInputs() const override { return 0; }
    int numberOfOutputs() const override { return 0; }
    QUuid getInpPortDescriptor(int) const override { return QUuid(); }
    QUuid getOutPortDescriptor(int) const override { return QUuid(); }
    void* openInput(int) override { return nullptr; }
    int closeInput() override { return -1; }
    void* openOutput(int) override { return nullptr; }
    int closeOutput() override { return -1; }
    bool outputData(int, const void*) override { return false; }
};

class Observer : public TMIDIReaderRefConInterface
{
public:
    virtual ~Observer() = default;

    int read(int length, const void* data, bool strictStart, bool spare) override
    {
        FUZZ_CHECK(!spare);
        const auto* const bytes = static_cast<const unsigned char*>(data);
        received.push_back({Bytes(bytes, bytes + length), strictStart});
        if (terminates && received.size() == 3)
            terminates->terminate();
        return 0;
    }

    std::vector<Message> received;
    TMIDITransport* terminates = nullptr; ///< at the third message
};

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzInput input(data, size);
    const FuzzRun run;
    TMIDITransport& transport = *new BareTransport;
    Observer first;
    Observer second;
    transport.registerMIDIobserver(&first);
    transport.registerMIDIobserver(&second);
    if (input.below(4) == 0)
        first.terminates = &transport;

    Model model;
    std::vector<Message> expected;
    while (!input.atEnd()) {
        const unsigned kind = input.byte();
        const bool strictStart = kind % 2 == 0;
        if (kind == 0xFF) {
            FUZZ_CHECK(TransportTestAccess::frame(transport, -1, nullptr) == -1);
            continue;
        }
        const Bytes chunk = input.bytes(kind >= 0xF0 ? input.word() : kind / 2 % 16);
        FUZZ_CHECK(TransportTestAccess::frame(transport, chunk, strictStart) ==
                   static_cast<int>(chunk.size()));
        if (const std::optional<Message> message = model.take(chunk, strictStart))
            expected.push_back(*message);
    }
    const bool terminated = first.terminates && expected.size() >= 3;
    if (terminated)
        expected.resize(3);
    FUZZ_CHECK(first.received == expected);
    if (terminated)
        expected.pop_back(); // the second observer was not called
    FUZZ_CHECK(second.received == expected);
    transport.Release();
    return 0;
}
