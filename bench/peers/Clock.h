// Time for the measurements: WinMM's own clock is too coarse.

#ifndef LUMORA_BENCH_PEERS_CLOCK_H
#define LUMORA_BENCH_PEERS_CLOCK_H

#include <windows.h>

// In microseconds, with a resolution of a tenth under Wine.
inline double now()
{
    static const double ticksPerMicrosecond = [] {
        LARGE_INTEGER frequency;
        QueryPerformanceFrequency(&frequency);
        return static_cast<double>(frequency.QuadPart) / 1e6;
    }();
    LARGE_INTEGER ticks;
    QueryPerformanceCounter(&ticks);
    return static_cast<double>(ticks.QuadPart) / ticksPerMicrosecond;
}

// Keeps the processor busy, as an observer that works does; Sleep() is too coarse.
inline void work(double microseconds)
{
    const double end = now() + microseconds;
    while (now() < end) {
    }
}

#endif
