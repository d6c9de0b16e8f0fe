// kzol_bench: the library's benchmarks. The signed files are made before any
// benchmark runs and removed when the program ends. Usual Google Benchmark
// options apply (--benchmark_filter=verify/library, --benchmark_repetitions=5).
//
// main is defined here: libkZOLUser exports a `main` of its own, which a main
// taken from a static archive (benchmark_main) would lose to.
#include <benchmark/benchmark.h>
#include <dlog.h>

#include <sched.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "bench_support.h"

// The platform log, silenced: the library's messages (one per verification)
// would otherwise be formatted and written to standard error inside the timed
// loop, measuring the log stand-in instead of the library.
extern "C" int __dlog_print(log_id_t, int, const char*, const char*, ...)
{
    return 0;
}

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    // A network namespace of its own, where permitted: the listener that
    // stands in for the daemon then takes no name from a real one.
    if (unshare(CLONE_NEWNET) != 0) {
        std::fprintf(stderr, "kzol_bench: no private network namespace (%s); using the daemon's name\n",
                     std::strerror(errno));
    }
    kzol_bench::Workspace workspace;
    std::string error;
    if (!workspace.create(error)) {
        std::fprintf(stderr, "kzol_bench: %s\n", error.c_str());
        return 1;
    }
    kzol_bench::registerAllFamilies(workspace);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
