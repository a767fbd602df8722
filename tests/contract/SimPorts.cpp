// The contract tests' ports on the simulation.

#include "ContractPorts.h"
#include "Sim.h"

#include <cstdlib>

namespace contract {

const bool refusedCloseFreesHandle = false;

void connectOnePair()
{
    sim::reset();
    sim::DeviceOptions options;
    // As with a real device: what is sent is finished by the driver's own thread.
    options.completion = sim::Completion::Thread;
    if (std::getenv("LUMORA_CONTRACT_DRIVER"))
        options.kind = sim::DriverKind::Windows11;
    sim::connect(sim::addOutput(u"Contract", options), sim::addInput(u"Contract", options));
}

} // namespace contract
