// RIReader on a file of any bytes, and RIFile that goes on with it.

#include "fuzz_support.h"
#include "qutils/raw/ri_file.h"
#include "qutils/raw/ri_reader.h"

#include <algorithm>
#include <cstdint>
#include <vector>

namespace {

constexpr int mostPixels = 1 << 16; // Of a request: the hostile sizes are the file's own.

/// A part of the region that memory can be asked for.
RIRegionInfo part(const RIRegionInfo& region)
{
    const int width = std::min(region.right - region.left, mostPixels);
    const int height = std::min(region.bottom - region.top, std::max(mostPixels / width, 1));
    return { region.left, region.top, region.left + width, region.top + height };
}

void readAll(RIReader& reader)
{
    const int regions = std::min(reader.getNumRegions(), 64);
    for (int channel = 0; channel < std::min(reader.getNumChannels(), 8); ++channel) {
        const auto components = std::size_t(reader.getChannel(channel).numComponents);
        for (int cell = 0; cell < regions; ++cell) {
            const RIRegionInfo rect = part(reader.getRegion(cell));
            const std::size_t row = std::size_t(rect.right - rect.left) * components;
            std::vector<float> pixels(row * std::size_t(rect.bottom - rect.top));
            const bool done = reader.isRegionDone(cell);
            const int code = reader.readPixelsFloat(channel, rect, pixels.data(), row * sizeof(float)).code();
            fuzz_support::require(code == 0 || (done && !reader.isRegionDone(cell)),
                "an error that is no damaged region, or one that stays");
        }
    }
}

/// A bucket of zeros.
class Zeros : public QURegionData {
public:
    explicit Zeros(const RIRegionInfo& rect)
        : m_rect(rect), m_row(std::size_t(rect.right - rect.left) * 4) { }
    RIRegionInfo getRegion() override { return m_rect; }
    const void* getRow(int, int) override { return m_row.data(); }

private:
    RIRegionInfo m_rect;
    std::vector<float> m_row;
};

void resume(const char* path)
{
    RIReader verified;
    const bool readable = verified.Open(path).code() == 0 && verified.verify().code() == 0;
    RIFile file;
    const bool resumed = file.Open(path).code() == 0;
    fuzz_support::require(readable == resumed, "a file that is read cannot be gone on with, or the reverse");
    if (!resumed)
        return;
    fuzz_support::require(file.countMissingRegions() == verified.countMissingRegions(),
        "what is missing in a file is not what is rendered again");
    const RIRegionInfo first = file.getRegion(0);
    if (std::int64_t(first.right - first.left) * (first.bottom - first.top) > mostPixels
        || file.getNumChannels() > 16)
        return;
    Zeros zeros(first);
    const bool written = file.WTRegion(&zeros, -1, 0, 0).code() == 0 && file.Close().code() == 0;
    RIReader reader;
    fuzz_support::require(
        written && reader.Open(path).code() == 0 && reader.isClosed() && reader.isRegionDone(0),
        "a region that was written is not there");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const fuzz_support::InputFile file(data, size);
    {
        RIReader reader;
        if (reader.Open(file.name()).code() == 0)
            readAll(reader);
    }
    resume(file.name());
    return 0;
}
