#include "bench/files.h"
#include "bench/rows.h"

#include <benchmark/benchmark.h>
#include <vector>

namespace {

/// Rows take turns in random order, many times over: whatever else the machine does meets all of them.
std::vector<char*> withDefaults(int argc, char** argv)
{
    static char interleaved[] = "--benchmark_enable_random_interleaving=true";
    static char repetitions[] = "--benchmark_repetitions=20";
    static char summary[] = "--benchmark_display_aggregates_only=true";
    std::vector<char*> arguments { argv[0], interleaved, repetitions, summary };
    arguments.insert(arguments.end(), argv + 1, argv + argc);
    return arguments;
}

} // namespace

int main(int argc, char** argv)
{
    bench::removeFilesOnInterrupt();
    std::vector<char*> arguments = withDefaults(argc, argv);
    int count = int(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data()))
        return 2;

    bench::addBmpRows();
    bench::addDdsRows();
    bench::addExrReadRows();
    bench::addExrWriteRows();
    bench::addHdrRows();
    bench::addJpegRows();
    bench::addPicRows();
    bench::addPngRows();
    bench::addPsdRows();
    bench::addQuimgRows();
    bench::addSgiRows();
    bench::addTgaRows();
    bench::addTiffRows();
    bench::addTileRows();
    bench::addKernelRows();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
