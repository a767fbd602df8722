// The cable's ports: the model of a driver's port, with what leads from one process to another.
#pragma once

#include "workbench/cable/Description.h"
#include "workbench/cable/Pipe.h"
#include "workbench/device/OutputPort.h"

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>

namespace cable {

// A port of the description, and who has it open.
class Place
{
public:
    using Client = std::shared_ptr<device::Port>;

    Place(const PortDescription& itsDescription, std::size_t itsPosition);

    // Null if another client has it.
    Client open(device::Port::Callback callback);
    void remove(const Client& client);
    std::vector<Client> clients();
    // The client that WinMM knows by its address; null if that has been closed.
    Client client(DWORD_PTR address);

    void log(const std::string& event) const;

    const PortDescription description;
    const unsigned position;         // from 1
    std::atomic<bool> present{true}; // false: pulled out
    std::atomic<DWORD> longs{0};     // sent in this process, for the description's fault

private:
    std::mutex mutex;        // taken alone: a port's own calls may wait for another's
    std::vector<Client> all; // guarded by `mutex`; several on Windows 11
};

// The ports that the description lists, of one direction. Read when first asked for; live as long
// as the process.
std::deque<Place>& places(bool ofInput);

} // namespace cable
