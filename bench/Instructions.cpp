// What callgrind counts the instructions of (bench/instructions runs it): each operation many
// times, with the collection on for nothing else. Prints the compiler, then the name and the number
// of times of each, in the order of the dumps.

#include "bench/Bench.h"

#include <cstdio>
#include <valgrind/callgrind.h>

namespace bench {

const int kTimes = 1000;

template <class Prepare, class Operation>
void count(const char* name, Prepare prepare, Operation operation)
{
    // The first time functions are still being bound.
    prepare();
    operation();
    CALLGRIND_ZERO_STATS;
    for (int i = 0; i < kTimes; ++i) {
        prepare();
        CALLGRIND_TOGGLE_COLLECT;
        operation();
        CALLGRIND_TOGGLE_COLLECT;
    }
    CALLGRIND_DUMP_STATS_AT(name);
    std::printf("%s %d\n", name, kTimes);
}

static void countAll()
{
    OpenInput input(1);
    count(
        "callback", [&] { input.dropRecords(); }, [&] { input.callback(MIM_DATA, 0x00643C90); });
    input.dropRecords();
    count(
        "drain-short", [&] { input.queueShortMessages(1); }, [&] { input.drain(); });
    count(
        "drain-sysex", [&] { input.queueSysEx(1); }, [&] { input.drain(); });
}

} // namespace bench

int main()
{
    std::printf("g++ %s\n", __VERSION__);
    bench::countAll();
    return 0;
}
