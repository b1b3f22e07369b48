#pragma once

#include "rastkit/buffers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace testing_support {

// A folder of real files, named by the environment variable RASTKIT_CORPUS: <format>/<origin>/<file>, and
// two tables about them. expected.tsv has a row for each decoder (or several that agree) and file: path,
// decoders, width, height, channels, bits, "ok" or "error: ...". pixels.tsv has a row with figures of the
// decoded pixels for each decoder and file.

/// Smallest, largest, mean, first (top left) and last value of each channel, scaled to 0..1.
struct PixelFigures {
    using Channels = std::vector<double>;

    std::string decoder;
    Channels minimum, maximum, mean, first, last;

    std::size_t channels() const { return mean.size(); }
};

inline std::filesystem::path corpusFolder()
{
    const char* const folder = std::getenv("RASTKIT_CORPUS");
    return folder ? std::filesystem::path(folder) : std::filesystem::path();
}

/// A test of real files, skipped where there are none.
class CorpusTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (corpusFolder().empty())
            GTEST_SKIP() << "RASTKIT_CORPUS names no folder of real files";
    }
    static std::string path(const std::string& file) { return (corpusFolder() / file).string(); }
};

/// All files of a format, as paths from the corpus folder, sorted.
inline std::vector<std::string> corpusFiles(const std::string& format)
{
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(corpusFolder() / format))
        if (entry.is_regular_file())
            files.push_back(std::filesystem::relative(entry.path(), corpusFolder()).string());
    std::sort(files.begin(), files.end());
    return files;
}

inline std::vector<std::string> splitText(const std::string& text, char separator)
{
    std::vector<std::string> parts;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, separator);)
        parts.push_back(part);
    return parts;
}

/// The rows of one of the tables, without its heading.
inline std::vector<std::vector<std::string>> corpusTable(const std::string& name)
{
    std::vector<std::vector<std::string>> rows;
    std::ifstream in(corpusFolder() / name);
    std::string line;
    for (std::getline(in, line); std::getline(in, line);)
        rows.push_back(splitText(line, '\t'));
    return rows;
}

/// The files that at least one of the decoders reads.
inline std::set<std::string> filesReadByOthers()
{
    std::set<std::string> files;
    for (const auto& row : corpusTable("expected.tsv"))
        if (row.size() > 6 && row[6] == "ok")
            files.insert(row[0]);
    return files;
}

inline std::multimap<std::string, PixelFigures> corpusFigures()
{
    const auto numbers = [](const std::string& text) {
        PixelFigures::Channels values;
        for (const std::string& part : splitText(text, ','))
            values.push_back(std::stod(part));
        return values;
    };
    std::multimap<std::string, PixelFigures> figures;
    for (const auto& row : corpusTable("pixels.tsv"))
        figures.insert({ row.at(0),
            { row.at(1), numbers(row.at(3)), numbers(row.at(4)), numbers(row.at(5)), numbers(row.at(6)),
                numbers(row.at(7)) } });
    return figures;
}

/// The figures of `width` x `height` pixels, for as many channels as are asked for: grey; grey and alpha;
/// R, G, B; R, G, B and alpha. `valueAt(x, y, component)` is component 0 to 3, R, G, B or A, of a pixel.
template <typename ValueAt>
PixelFigures figuresOf(int width, int height, std::size_t channels, const ValueAt& valueAt)
{
    const bool grey = channels < 3;
    PixelFigures figures { "", PixelFigures::Channels(channels, std::numeric_limits<double>::infinity()),
        PixelFigures::Channels(channels, -std::numeric_limits<double>::infinity()),
        PixelFigures::Channels(channels, 0), {}, {} };
    for (std::size_t c = 0; c < channels; ++c) {
        const std::size_t component = grey && c == 1 ? 3 : c;
        double counted = 0; // Smallest, largest and mean are of finite values.
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                const double value = valueAt(x, y, component);
                if (!std::isfinite(value))
                    continue;
                ++counted;
                figures.minimum[c] = std::min(figures.minimum[c], value);
                figures.maximum[c] = std::max(figures.maximum[c], value);
                figures.mean[c] += value;
            }
        figures.mean[c] /= counted;
        figures.first.push_back(valueAt(0, 0, component));
        figures.last.push_back(valueAt(width - 1, height - 1, component));
    }
    return figures;
}

inline PixelFigures figuresOf(const QUtils::Image8& image, std::size_t channels)
{
    return figuresOf(image.width(), image.height(), channels, [&](int x, int y, std::size_t component) {
        const unsigned int shift = component == 3 ? 24 : 16 - 8 * unsigned(component);
        return double(image.pixel(x, y) >> shift & 0xFF) / 255;
    });
}

inline PixelFigures figuresOf(const QUtils::ImageF& image, std::size_t channels)
{
    return figuresOf(image.width(), image.height(), channels, [&](int x, int y, std::size_t component) {
        return double(image.row(y)[std::size_t(x) * 4 + component]);
    });
}

/// Whether no figure differs by more than `tolerance` in the first `channels` channels.
inline bool agree(const PixelFigures& a, const PixelFigures& b, std::size_t channels, double tolerance)
{
    const auto same = [&](double x, double y) {
        return std::fabs(x - y) <= tolerance || x == y || (std::isnan(x) && std::isnan(y));
    };
    for (const auto figure : { &PixelFigures::minimum, &PixelFigures::maximum, &PixelFigures::mean,
             &PixelFigures::first, &PixelFigures::last })
        for (std::size_t c = 0; c < channels; ++c)
            if (!same((a.*figure).at(c), (b.*figure).at(c)))
                return false;
    return true;
}

/// For messages.
inline std::string toText(const PixelFigures& figures)
{
    std::ostringstream out;
    out << figures.decoder;
    for (const auto figure : { &PixelFigures::minimum, &PixelFigures::maximum, &PixelFigures::mean,
             &PixelFigures::first, &PixelFigures::last }) {
        out << " |";
        for (const double value : figures.*figure)
            out << ' ' << value;
    }
    return out.str();
}

/// Success when one of the decoders from `begin` to `end` has the figures that are found here; else all
/// figures. `compare(theirs, ours)` fills `ours` and tells whether they agree.
template <typename Figures, typename Compare>
testing::AssertionResult agreesWithOne(Figures begin, Figures end, const Compare& compare)
{
    std::ostringstream seen;
    for (Figures figures = begin; figures != end; ++figures) {
        PixelFigures ours;
        if (compare(figures->second, ours))
            return testing::AssertionSuccess();
        seen << '\n' << toText(figures->second) << "\nhere" << toText(ours);
    }
    return testing::AssertionFailure() << seen.str();
}

/// The same for an image of the channels that they have, alpha compared or not.
template <typename Figures, typename Image>
testing::AssertionResult agreesWithOne(
    Figures begin, Figures end, const Image& image, double tolerance, bool withAlpha)
{
    return agreesWithOne(begin, end, [&](const PixelFigures& theirs, PixelFigures& ours) {
        const std::size_t channels = theirs.channels();
        const bool hasAlpha = channels == 2 || channels == 4;
        ours = figuresOf(image, channels);
        return agree(ours, theirs, channels - (hasAlpha && !withAlpha), tolerance);
    });
}

} // namespace testing_support
