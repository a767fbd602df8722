#include "workbench/cable/Ports.h"

#include "workbench/cable/EventLog.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

namespace cable {

namespace {

// Other processes reach the input while it is open.
class InputPort : public device::InputPort
{
public:
    InputPort(const Place& place, Callback callback)
        : device::InputPort(place.description, std::move(callback)), listener(place.position, *this)
    {}
    void released() override { listener.stop(); }

private:
    Listener listener;
};

// What an output feeds: an input of this process, else one of another, else nothing.
class Lead : public device::Wire
{
public:
    explicit Lead(const Place& itsOutput) : output(itsOutput), to(inputOf(itsOutput)), remote(to) {}

    void noteShort(DWORD word) override
    {
        char text[16];
        std::snprintf(text, sizeof text, "short %06lX", word & 0xFFFFFF);
        output.log(text);
    }
    void noteLong(const MIDIHDR& header) override
    {
        output.log("long " + std::to_string(header.dwBufferLength));
    }

    bool connect() override
    {
        remote.allow();
        auto& inputs = places(true);
        if (to > 0 && to <= inputs.size())
            local = inputs[to - 1].clients();
        local.erase(std::remove_if(local.begin(), local.end(),
                                   [](const auto& input) { return input->isUnplugged(); }),
                    local.end());
        return !local.empty() || to == 0;
    }
    bool take(const MIDIPiece& piece) override
    {
        for (const auto& input : local)
            static_cast<InputPort&>(*input).take(source, piece);
        return !local.empty() || (to != 0 && remote.take(source, piece));
    }
    void cancel() override { remote.cancel(); }

private:
    static unsigned inputOf(const Place& output)
    {
        const bool hasOpposite = output.position <= places(true).size();
        return output.description.to.value_or(hasOpposite ? output.position : 0);
    }

    const Place& output;
    const unsigned to;
    // Like no other of any process.
    const device::SourceId source =
        device::SourceId(GetCurrentProcessId()) << 32 | device::nextSourceId();
    std::vector<Place::Client> local; // the input, if this process has it open
    RemoteInput remote;               // otherwise
};

} // namespace

// ---- A place ------------------------------------------------------------------------------------

Place::Place(const PortDescription& itsDescription, std::size_t itsPosition)
    : description(itsDescription), position(static_cast<unsigned>(itsPosition))
{}

Place::Client Place::open(device::Port::Callback callback)
{
    const std::lock_guard<std::mutex> guard(mutex);
    // Lost ports keep their headers until the driver is unloaded.
    if (description.kind != device::DriverKind::Windows11 &&
        std::any_of(all.begin(), all.end(), [](const auto& port) { return !port->isUnplugged(); }))
        return nullptr;
    if (description.isInput)
        all.push_back(std::make_shared<InputPort>(*this, std::move(callback)));
    else
        all.push_back(std::make_shared<device::OutputPort>(
            description, std::make_unique<Lead>(*this), std::move(callback)));
    return all.back();
}

void Place::remove(const Client& client)
{
    const std::lock_guard<std::mutex> guard(mutex);
    all.erase(std::remove(all.begin(), all.end(), client), all.end());
}

std::vector<Place::Client> Place::clients()
{
    const std::lock_guard<std::mutex> guard(mutex);
    return all;
}

Place::Client Place::client(DWORD_PTR address)
{
    for (auto& port : clients()) {
        if (reinterpret_cast<DWORD_PTR>(port.get()) == address)
            return port;
    }
    return nullptr;
}

void Place::log(const std::string& event) const
{
    logEvent(description.isInput ? "in" : "out", position, event);
}

std::deque<Place>& places(bool ofInput)
{
    // Never destroyed: the ports' threads may run until the process has ended.
    static auto& all = *[] {
        auto* const made = new std::array<std::deque<Place>, 2>;
        for (const PortDescription& port : readDescription()) {
            auto& direction = (*made)[port.isInput];
            direction.emplace_back(port, direction.size() + 1);
        }
        return made;
    }();
    return all[ofInput];
}

} // namespace cable
