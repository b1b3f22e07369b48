#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace bench {

/// What a row is to reach. The report compares; nothing fails when a goal is missed.
struct Goal {
    enum class Kind {
        None,
        TimesBeside, ///< At most `value` times the time of the row beside.
        TimesFaster, ///< At least `value` times as fast as the row beside.
        Megabytes, ///< At least `value` MB/s of pixels.
    };
    Kind kind = Kind::None;
    double value = 0;
};

/// One line of the report: something that is timed, and how its result is proved right.
struct Row {
    std::string name; ///< Format, variant and direction: "tga/raw24/read".
    std::string beside; ///< The name of the row it is compared with; empty for such a row itself.
    std::uint64_t pixelBytes = 0; ///< What MB/s counts: bytes of pixels, not of the file.
    Goal goal;
    /// Once, before the first run: makes the input. Says what went wrong, or nothing.
    std::function<std::string()> prepare = {};
    /// Before each run, untimed.
    std::function<void()> reset = {};
    /// What is timed. False when it failed.
    std::function<bool()> run = {};
    /// Once, after the first runs: whether the result is right, bit by bit. Empty where there is none.
    std::function<bool()> verify = {};
    /// A row whose work is spread over threads counts the time of the clock, not of its own thread.
    bool usesThreads = false;
    int runs = 3; ///< In one repetition. The first finds the caches as another row left them.
    /// Where files are compared too: how large this row's is, as a part of that of the row beside.
    std::function<double()> sizeRatio = {};
};

/// Adds a row to the benchmark. A wrong result takes the row out of it, with an error.
///
/// Each repetition runs the row a few times and notes the shortest ("best_seconds"); the report takes the
/// shortest of all repetitions. A row on one thread counts that thread's own time, the system's work for
/// it included: all files are in memory, so that it never waits, and what other programs take away is
/// not counted.
void addRow(Row row);

/// One for each file <format>_bench.cpp; main() calls them.
void addBmpRows();
void addDdsRows();
void addExrReadRows();
void addExrWriteRows();
void addHdrRows();
void addJpegRows();
void addKernelRows();
void addPicRows();
void addPngRows();
void addPsdRows();
void addQuimgRows();
void addSgiRows();
void addTgaRows();
void addTiffRows();
void addTileRows();

} // namespace bench
