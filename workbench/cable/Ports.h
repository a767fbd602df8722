// The cable's ports: the model of a driver's port, with what leads from one process to another.
#pragma once

#include "workbench/cable/Description.h"
#include "workbench/cable/Pipe.h"
#include "workbench/device/OutputPort.h"

#include <algorithm>
#include <atomic>
#include <memory>

namespace cable {

class InputPort;

// Never the same twice: a call through a stale handle is recognised.
using PortId = DWORD_PTR;

// What an output feeds: an input of this process, else one of another, else nothing.
class Lead : public device::Wire
{
public:
    Lead(unsigned outputPosition, unsigned inputPosition);

    void noteShort(DWORD word) override;
    void noteLong(const MIDIHDR& header) override;
    bool connect() override;
    void take(const MIDIPiece& piece, const device::Pause& pause) override;
    void disconnect(device::Counters& counters) override;
    void cancel() override { remote.cancel(); }

private:
    const unsigned position;
    const unsigned to;
    const device::SourceId source = device::nextSourceId();
    std::vector<std::shared_ptr<InputPort>> local; // the input, if this process has it open
    RemoteInput remote;                            // otherwise
    device::Delivery delivered, dropped;           // not yet in the counters
};

// Other processes reach the input while it is open.
class InputPort : public device::InputPort
{
public:
    InputPort(const PortDescription& description, unsigned position, Callback callback);
    void released() override { listener.stop(); }

    const PortId id = device::nextSourceId();
    Listener listener;
};

class OutputPort : public device::OutputPort
{
public:
    OutputPort(const PortDescription& description, unsigned position, Callback callback);

    const PortId id = device::nextSourceId();
};

// The place of one port. The counts number the calls for the description's faults, from the
// process' beginning.
template <class OpenPort>
struct Place
{
    PortDescription description;
    unsigned position; // from 1

    std::atomic<bool> present{true}; // false: pulled out

    std::mutex mutex; // taken alone: a port's own calls may wait for another's
    std::vector<std::shared_ptr<OpenPort>> clients; // guarded by `mutex`; several on Windows 11

    std::atomic<DWORD> prepares{0};
    std::atomic<DWORD> addBuffers{0};
    std::atomic<DWORD> longs{0};

    std::vector<std::shared_ptr<OpenPort>> current()
    {
        const std::lock_guard<std::mutex> guard(mutex);
        return clients;
    }

    // The port that the client's handle stands for; null if that has been closed.
    std::shared_ptr<OpenPort> current(PortId id)
    {
        for (auto& port : current()) {
            if (port->id == id)
                return port;
        }
        return nullptr;
    }

    void remove(const std::shared_ptr<OpenPort>& port)
    {
        const std::lock_guard<std::mutex> guard(mutex);
        clients.erase(std::remove(clients.begin(), clients.end(), port), clients.end());
    }
};

using InputPlace = Place<InputPort>;
using OutputPlace = Place<OutputPort>;

// The ports that the description lists. Read when first asked for; live as long as the process.
struct PortTable
{
    static PortTable& instance();

    std::vector<std::unique_ptr<InputPlace>> inputs;
    std::vector<std::unique_ptr<OutputPlace>> outputs;
};

} // namespace cable
