// Default flags for benchmarks that compare with a peer in one run: three
// repetitions, interleaved at random, reported as medians. On a shared
// machine the load drifts, and a ratio of two benchmarks run a minute apart
// would measure the drift. Flags the caller gives override these.
#pragma once

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

namespace kv::bench {

// Calls benchmark::Initialize with the defaults added; false when the
// command line holds flags Google Benchmark doesn't know.
inline bool InitializeInterleaved(int argc, char** argv) {
    static std::string defaults[] = {"--benchmark_repetitions=3", "--benchmark_enable_random_interleaving=true",
                                     "--benchmark_report_aggregates_only=true"};
    static std::vector<char*> args;
    args.assign(argv, argv + argc);
    for (std::string& flag : defaults) {
        std::string name = flag.substr(0, flag.find('='));
        bool given = false;
        for (int k = 1; k < argc; ++k) given |= std::string(argv[k]).rfind(name, 0) == 0;
        if (!given) args.insert(args.begin() + 1, flag.data());
    }
    int count = int(args.size());
    args.push_back(nullptr);
    benchmark::Initialize(&count, args.data());
    return !benchmark::ReportUnrecognizedArguments(count, args.data());
}

}  // namespace kv::bench
