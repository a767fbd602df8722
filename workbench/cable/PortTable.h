// The ports that the description lists, and what is open of them in this process.

#ifndef LUMORA_CABLE_PORTTABLE_H
#define LUMORA_CABLE_PORTTABLE_H

#include "InputPort.h"
#include "OutputPort.h"

#include <atomic>

namespace cable {

// The place of one port. The counts number the calls for the description's faults, from the
// process' beginning.
template <class OpenPort>
struct Place
{
    PortDescription description;
    unsigned position; // from 1

    Mutex mutex;
    std::shared_ptr<OpenPort> open; // guarded by `mutex`; null if closed

    std::atomic<DWORD> prepares{0};
    std::atomic<DWORD> addBuffers{0};
    std::atomic<DWORD> longs{0};

    std::shared_ptr<OpenPort> current()
    {
        const Lock lock(mutex);
        return open;
    }

    // The port that the client's handle stands for; null if that has been closed.
    std::shared_ptr<OpenPort> current(DWORD_PTR id)
    {
        const Lock lock(mutex);
        return open && open->id() == id ? open : nullptr;
    }
};

using InputPlace = Place<InputPort>;
using OutputPlace = Place<OutputPort>;

class PortTable
{
public:
    // Read from the description when first asked for; lives as long as the process.
    static PortTable& instance();

    DWORD inputCount() const { return static_cast<DWORD>(inputs_.size()); }
    DWORD outputCount() const { return static_cast<DWORD>(outputs_.size()); }

    // By device identifier, from 0. Null if there is no such port.
    InputPlace* input(DWORD device) { return at(inputs_, device); }
    OutputPlace* output(DWORD device) { return at(outputs_, device); }

private:
    PortTable();

    template <class AnyPlace>
    static AnyPlace* at(std::vector<std::unique_ptr<AnyPlace>>& places, DWORD device)
    {
        return device < places.size() ? places[device].get() : nullptr;
    }

    std::vector<std::unique_ptr<InputPlace>> inputs_;
    std::vector<std::unique_ptr<OutputPlace>> outputs_;
};

// The input at a position from 1, if it is open in this process.
std::shared_ptr<InputPort> openInputAt(DWORD position);

} // namespace cable

#endif
