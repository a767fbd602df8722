// The driver's half on the Unix side, a shared object of Linux: what the mmdevapi.dll of Wine 10
// asks a sound driver. It calls by position in a table; each entry takes the address of the call's
// parameters and returns a status. All of MIDI is in the Windows half.

#include <cstdint>

namespace {

using Status = std::int32_t;
using UnixCall = Status (*)(void* parameters);

constexpr Status kSuccess = 0;
constexpr Status kNotSupported = static_cast<Status>(0xC00000BB);

struct EndpointIds
{
    std::int32_t flow;
    void* endpoints;
    std::uint32_t size;
    std::int32_t result;
    std::uint32_t count;
    std::uint32_t defaultIndex;
};

struct TestConnect
{
    const char16_t* program;
    std::int32_t priority;
};

Status succeed(void*)
{
    return kSuccess;
}

Status refuse(void*)
{
    return kNotSupported;
}

Status getEndpointIds(void* parameters)
{
    auto* ids = static_cast<EndpointIds*>(parameters);
    ids->result = 0;
    ids->count = 0;
    ids->defaultIndex = 0;
    return kSuccess;
}

Status testConnect(void* parameters)
{
    static_cast<TestConnect*>(parameters)->priority = 3; // preferred
    return kSuccess;
}

} // namespace

// The name by which Wine looks it up. Without an end point there is no stream, and nobody calls
// what refuses.
extern "C" const UnixCall __wine_unix_call_funcs[] = {
    succeed, // attach to the process
    succeed, // detach from it
    refuse,  // main loop
    getEndpointIds,
    // 4 to 26: streams
    refuse, refuse, refuse, refuse, refuse, refuse, refuse, refuse, //
    refuse, refuse, refuse, refuse, refuse, refuse, refuse, refuse, //
    refuse, refuse, refuse, refuse, refuse, refuse, refuse,         //
    testConnect, refuse, refuse, // is started, property of an end point
    // Wine's own MIDI drivers: initialise, release, output, input, notification, auxiliary
    refuse, refuse, refuse, refuse, refuse, refuse, //
};
static_assert(sizeof __wine_unix_call_funcs / sizeof(UnixCall) == 36, "Wine counts on each entry");
