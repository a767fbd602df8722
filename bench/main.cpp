// The micro-benchmarks: Google Benchmark's options, with the repetitions of all benchmarks mixed,
// so that a slow spell of the machine meets a benchmark and its floor alike.

#include "bench/Bench.h"

#include <fstream>
#include <string>
#include <vector>

static std::string processor()
{
    std::ifstream information("/proc/cpuinfo");
    for (std::string line; std::getline(information, line);) {
        if (line.rfind("model name", 0) == 0)
            return line.substr(line.find(':') + 2);
    }
    return "unknown processor";
}

int main(int argc, char** argv)
{
    char interleave[] = "--benchmark_enable_random_interleaving=true";
    char repetitions[] = "--benchmark_repetitions=9";
    char minimumTime[] = "--benchmark_min_time=0.05";
    std::vector<char*> arguments = {argv[0], interleave, repetitions, minimumTime};
    arguments.insert(arguments.end(), argv + 1, argv + argc); // a later one counts
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data()))
        return 2;
    benchmark::AddCustomContext("processor", processor());
    benchmark::AddCustomContext("compiler", "g++ " __VERSION__);
    bench::letLargeBlocksComeFresh();
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
