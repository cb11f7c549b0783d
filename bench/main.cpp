#include <benchmark/benchmark.h>
#include <cblas.h>

#include "vorn/context/context.h"

// One thread, because the floors and the peers are single-threaded.
int main(int argc, char** argv) {
    openblas_set_num_threads(1);
    vorn::ThreadContextScope context;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
