// The end of the pipe at an open input: takes what the outputs of other processes send.

#pragma once

#include "workbench/device/InputPort.h"

#include <memory>
#include <thread>

namespace cable {

class Listener
{
public:
    explicit Listener(unsigned inputPosition);
    ~Listener();

    // Listens, on a thread of its own, until stop(). While another process listens for the same
    // position this one does not; it takes over when the other has stopped.
    void start(std::shared_ptr<device::InputPort> input);

    // Returns when nobody can reach the input through the pipe any more.
    void stop();

private:
    // Shared with the thread, which outlives the listener if that is never stopped.
    struct State;
    std::shared_ptr<State> state;
    std::thread thread;
};

} // namespace cable
