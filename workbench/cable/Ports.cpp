#include "workbench/cable/Ports.h"

#include "workbench/cable/EventLog.h"

#include <cstdio>
#include <utility>

namespace cable {

namespace {

template <class AnyPlace>
void fill(std::vector<std::unique_ptr<AnyPlace>>& places, std::vector<PortDescription>& ports)
{
    for (PortDescription& port : ports) {
        auto place = std::make_unique<AnyPlace>();
        place->description = std::move(port);
        place->position = static_cast<unsigned>(places.size() + 1);
        places.push_back(std::move(place));
    }
}

} // namespace

PortTable& PortTable::instance()
{
    // Never destroyed: the ports' threads may run until the process has ended.
    static PortTable& table = *[] {
        auto* const made = new PortTable;
        Description description = readDescription();
        for (const std::string& complaint : description.complaints)
            complain(complaint);
        fill(made->inputs, description.inputs);
        fill(made->outputs, description.outputs);
        return made;
    }();
    return table;
}

InputPort::InputPort(const PortDescription& description, unsigned position, Callback callback)
    : device::InputPort(description, std::move(callback)), listener(position, *this)
{}

OutputPort::OutputPort(const PortDescription& description, unsigned position, Callback callback)
    : device::OutputPort(description, std::make_unique<Lead>(position, description.to),
                         std::move(callback))
{}

// ---- The lead -----------------------------------------------------------------------------------

Lead::Lead(unsigned outputPosition, unsigned inputPosition)
    : position(outputPosition), to(inputPosition), remote(inputPosition)
{}

void Lead::noteShort(DWORD word)
{
    char text[16];
    std::snprintf(text, sizeof text, "short %06lX", word & 0xFFFFFF);
    logEvent("out", position, text);
}

void Lead::noteLong(const MIDIHDR& header)
{
    logEvent("out", position, "long " + std::to_string(header.dwBufferLength));
}

bool Lead::connect()
{
    remote.allow();
    const auto& inputs = PortTable::instance().inputs;
    if (to > 0 && to <= inputs.size())
        local = inputs[to - 1]->current();
    local.erase(std::remove_if(local.begin(), local.end(),
                               [](const auto& input) { return input->isUnplugged(); }),
                local.end());
    if (local.empty())
        return to == 0;
    return std::all_of(local.begin(), local.end(),
                       [](const auto& input) { return input->takesAtOnce(); });
}

void Lead::take(const MIDIPiece& piece, const device::Pause& pause)
{
    for (const auto& input : local)
        input->take(source, piece, pause);
    const bool arrived = !local.empty() || (to != 0 && remote.take(piece));
    (arrived ? delivered : dropped).count(piece);
}

void Lead::disconnect(device::Counters& counters)
{
    local.clear();
    counters.delivered += std::exchange(delivered, {});
    counters.dropped += std::exchange(dropped, {});
}

} // namespace cable
