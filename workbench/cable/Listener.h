// The end of the pipe at an open input: takes what the outputs of other processes send.

#ifndef LUMORA_CABLE_LISTENER_H
#define LUMORA_CABLE_LISTENER_H

#include "System.h"

#include <memory>

namespace cable {

class InputPort;

class Listener
{
public:
    explicit Listener(unsigned inputPosition);
    ~Listener();

    // Listens, on a thread of its own, until stop(). While another process listens for the same
    // position this one does not; it takes over when the other has stopped.
    void start(std::shared_ptr<InputPort> input);

    // Returns when nobody can reach the input through the pipe any more.
    void stop();

private:
    // Shared with the thread, which outlives the listener if that is never stopped.
    struct State;
    std::shared_ptr<State> state_;
    Handle thread_;
};

} // namespace cable

#endif
