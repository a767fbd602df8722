#include "bench/Bench.h"

namespace bench {

int Observer::read(int length, const void* data, bool, bool)
{
    benchmark::DoNotOptimize(data);
    bytes += length;
    return 0;
}

TMIDIReaderRefConInterface& anyReader(Observer& observer)
{
    return observer;
}

static int addInput()
{
    sim::reset();
    sim::logCalls(false); // it would cost more than what is measured
    return sim::addInput(u"Input");
}

OpenInput::OpenInput(int observerCount)
    : input(addInput()), observers(static_cast<std::size_t>(observerCount)),
      sysEx(sim::floodSysEx(0, MIDIHeaderBlock::kBufferSize)),
      transport(MIDITransportInstance(nullptr))
{
    for (Observer& observer : observers)
        transport.registerMIDIobserver(&observer);
    transport.openInput(1);
    Access::stop(transport);
    dropRecords(); // the notice of the opening
}

OpenInput::~OpenInput()
{
    transport.Release();
}

void OpenInput::queueShortMessages(int count)
{
    const InputRecord record = {MIM_DATA, 0x00643C90};
    for (int i = 0; i < count; ++i)
        device().recordQueue.write(&record, sizeof record);
}

void OpenInput::queueSysEx(int count)
{
    for (int i = 0; i < count; ++i)
        sim::sysEx(input, sysEx.data(), sysEx.size());
}

void OpenInput::dropRecords()
{
    InputRecord record;
    while (device().takeRecord(&record)) {
    }
}

} // namespace bench
