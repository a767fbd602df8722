// The simulated WinMM in front of the model of a driver's port: devices, and the handles of their
// open ports. Ports live until reset(), open or not, so that a late callback or a stale handle
// always meets valid memory.
#pragma once

#include "SimInternal.h"
#include "workbench/device/OutputPort.h"

#include <array>
#include <memory>
#include <mutex>

namespace sim::internal {

constexpr std::size_t kMaximumDevices = 1024;
constexpr std::size_t kMaximumClients = 16;
constexpr std::size_t kMaximumPorts = std::size_t(1) << 18; // opened between two resets

template <typename Handle>
struct Kind;

template <>
struct Kind<HMIDIIN>
{
    using Model = device::InputPort;
    static constexpr std::uintptr_t firstHandle = 0x10000000;
};

template <>
struct Kind<HMIDIOUT>
{
    using Model = device::OutputPort;
    static constexpr std::uintptr_t firstHandle = 0x20000000;
};

template <typename Handle>
struct Port;

template <typename Handle>
struct Device
{
    Device(const std::u16string& deviceName, const DeviceOptions& deviceOptions);

    const std::u16string name;
    const DeviceOptions options;
    device::Settings settings; // guarded by `opening`
    std::atomic<bool> present{true};

    std::mutex opening; // taken to open and to close
    std::array<std::atomic<Port<Handle>*>, kMaximumClients> clients{};

    // Outputs only from here on.
    std::atomic<int> connectedInput{-1};
    std::mutex sentLock; // guards sentMessages
    std::vector<Sent> sentMessages;
};

// The devices and open ports of one direction.
template <typename Handle>
struct Direction
{
    std::array<std::atomic<Device<Handle>*>, kMaximumDevices> devices{};
    std::atomic<unsigned> deviceCount{0};
    std::array<std::atomic<Port<Handle>*>, kMaximumPorts> ports{};
    std::atomic<std::size_t> portCount{0};
    std::atomic<int> openPorts{0};
};

template <typename Handle>
inline Direction<Handle> directionOf;

// What one successful open made.
template <typename Handle>
struct Port : Kind<Handle>::Model
{
    using Model = typename Kind<Handle>::Model;

    template <typename... Arguments>
    Port(Device<Handle>& openedDevice, Arguments&&... arguments)
        : Model(openedDevice.settings, std::forward<Arguments>(arguments)...), device(openedDevice)
    {}
    // While the object is still whole: the thread calls virtual functions of it.
    ~Port() override { Model::endThread(); }

    void released() override
    {
        const std::lock_guard<std::mutex> guard(device.opening);
        for (auto& client : device.clients) {
            if (client.load(std::memory_order_relaxed) == this)
                client.store(nullptr, std::memory_order_relaxed);
        }
        directionOf<Handle>.openPorts.fetch_sub(1, std::memory_order_relaxed);
    }

    Device<Handle>& device;
};

// What an output sends, kept for sent() and led to the input that it is connected to.
class Lead : public device::Wire
{
public:
    explicit Lead(Device<HMIDIOUT>& output) : device(output) {}

    void noteShort(DWORD word) override;
    void noteLong(const MIDIHDR& header) override;
    void take(const MIDIPiece& piece) override;

private:
    void note(bool isShort, const void* bytes, std::size_t length, const MIDIHDR* header);

    Device<HMIDIOUT>& device;
    const device::SourceId source = device::nextSourceId();
};

template <typename Handle>
Device<Handle>* findDevice(UINT_PTR index)
{
    auto& direction = directionOf<Handle>;
    if (index >= direction.deviceCount.load(std::memory_order_acquire))
        return nullptr;
    return direction.devices[index].load(std::memory_order_acquire);
}

template <typename Handle>
Device<Handle>& scriptedDevice(int index)
{
    auto* const device = index < 0 ? nullptr : findDevice<Handle>(unsigned(index));
    if (!device)
        stopWith("there is no device", std::to_string(index));
    return *device;
}

template <typename Handle, typename Action>
void forEachDevice(Action action)
{
    const unsigned count = directionOf<Handle>.deviceCount.load(std::memory_order_acquire);
    for (unsigned i = 0; i < count; ++i)
        action(*findDevice<Handle>(i));
}

// Calls action(port) for each open client.
template <typename Handle, typename Action>
void forEachClient(Device<Handle>& device, Action action)
{
    for (auto& client : device.clients) {
        if (Port<Handle>* const port = client.load(std::memory_order_acquire))
            action(*port);
    }
}

template <typename Handle>
Port<Handle>* firstClient(int index)
{
    Port<Handle>* first = nullptr;
    forEachClient(scriptedDevice<Handle>(index),
                  [&](Port<Handle>& port) { first = first ? first : &port; });
    return first;
}

void endFloods();

} // namespace sim::internal
