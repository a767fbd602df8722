// The contract tests' ports on the simulation.

#include "ContractPorts.h"
#include "Sim.h"

namespace contract {

const bool refusedCloseFreesHandle = false;

void connectOnePair()
{
    sim::reset();
    sim::DeviceOptions options;
    // As with a real device: what is sent is finished by the driver's own thread.
    options.completion = sim::Completion::Thread;
    sim::connect(sim::addOutput(u"Contract", options), sim::addInput(u"Contract"));
}

} // namespace contract
