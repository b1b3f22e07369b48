#include "bench/rows.h"

#include "rastkit/formats.h"

#include <ImfThreading.h>
#include <algorithm>
#include <benchmark/benchmark.h>
#include <ctime>
#include <limits>
#include <memory>
#include <utility>

namespace bench {

namespace {

/// A row and what its repetitions remember of each other.
struct Entry {
    Row row;
    bool prepared = false, verified = false;
    std::string problem;
};

double secondsOf(clockid_t clock)
{
    timespec now;
    clock_gettime(clock, &now);
    return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
}

struct Seconds {
    double wall, counted;
};

Seconds now(const Row& row)
{
    const double wall = secondsOf(CLOCK_MONOTONIC);
    return { wall, row.usesThreads ? wall : secondsOf(CLOCK_THREAD_CPUTIME_ID) };
}

const char* counterOf(Goal::Kind kind)
{
    switch (kind) {
    case Goal::Kind::None: break;
    case Goal::Kind::TimesBeside: return "goal_times_beside";
    case Goal::Kind::TimesFaster: return "goal_times_faster";
    case Goal::Kind::Megabytes: return "goal_megabytes";
    }
    return nullptr;
}

/// What the report needs to know stands in the output itself.
void describe(benchmark::State& state, const Row& row, const Seconds& best)
{
    state.SetLabel(row.beside);
    state.counters["best_seconds"] = best.counted;
    state.counters["best_wall_seconds"] = best.wall;
    state.counters["pixel_bytes"] = double(row.pixelBytes);
    state.counters["MB/s"] = double(row.pixelBytes) / best.counted / 1e6;
    if (row.sizeRatio)
        state.counters["size_ratio"] = row.sizeRatio();
    if (const char* const goal = counterOf(row.goal.kind))
        state.counters[goal] = row.goal.value;
}

void prepare(Entry& entry)
{
    if (!std::exchange(entry.prepared, true) && entry.row.prepare)
        entry.problem = entry.row.prepare();
}

void verify(Entry& entry)
{
    if (entry.problem.empty() && !std::exchange(entry.verified, true) && entry.row.verify
        && !entry.row.verify())
        entry.problem = "the result is wrong";
}

void measure(benchmark::State& state, Entry& entry)
{
    const Row& row = entry.row;
    prepare(entry);
    Seconds best { std::numeric_limits<double>::max(), std::numeric_limits<double>::max() };
    while (state.KeepRunning()) {
        if (!entry.problem.empty())
            break;
        // OpenEXR's threads are the whole process's, and another program's row may have left some.
        if (Imf::globalThreadCount() != 0)
            QUtils::setThreadCount(0);
        if (row.reset)
            row.reset();
        const Seconds begin = now(row);
        const bool done = row.run();
        const Seconds end = now(row);
        if (!done)
            entry.problem = "it failed";
        best.wall = std::min(best.wall, end.wall - begin.wall);
        best.counted = std::min(best.counted, end.counted - begin.counted);
        state.SetIterationTime(end.wall - begin.wall);
    }
    verify(entry);
    if (entry.problem.empty())
        describe(state, row, best);
    else
        state.SkipWithError(entry.problem.c_str());
}

} // namespace

void addRow(Row row)
{
    const auto entry = std::make_shared<Entry>();
    entry->row = std::move(row);
    benchmark::RegisterBenchmark(
        entry->row.name.c_str(), [entry](benchmark::State& state) { measure(state, *entry); })
        ->Iterations(entry->row.runs)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
}

} // namespace bench
