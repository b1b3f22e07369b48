#pragma once

#include "rastkit/buffers.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
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

/// The figures of an image, for as many channels as are asked for: grey; grey and alpha; R, G, B; R, G, B
/// and alpha.
inline PixelFigures figuresOf(const QUtils::Image8& image, std::size_t channels)
{
    const bool grey = channels < 3;
    const auto valueOf = [&](unsigned int argb, std::size_t channel) {
        const bool alpha = channel == (grey ? 1u : 3u);
        const unsigned int shift = alpha ? 24 : grey ? 8 : 16 - 8 * unsigned(channel);
        return double(argb >> shift & 0xFF) / 255;
    };
    PixelFigures figures { "", PixelFigures::Channels(channels, 1), PixelFigures::Channels(channels, 0),
        PixelFigures::Channels(channels, 0), {}, {} };
    for (std::size_t c = 0; c < channels; ++c) {
        for (int y = 0; y < image.height(); ++y)
            for (int x = 0; x < image.width(); ++x) {
                const double value = valueOf(image.pixel(x, y), c);
                figures.minimum[c] = std::min(figures.minimum[c], value);
                figures.maximum[c] = std::max(figures.maximum[c], value);
                figures.mean[c] += value;
            }
        figures.mean[c] /= double(image.width()) * image.height();
        figures.first.push_back(valueOf(image.pixel(0, 0), c));
        figures.last.push_back(valueOf(image.pixel(image.width() - 1, image.height() - 1), c));
    }
    return figures;
}

/// Whether no figure differs by more than `tolerance` in the first `channels` channels.
inline bool agree(const PixelFigures& a, const PixelFigures& b, std::size_t channels, double tolerance)
{
    for (const auto figure : { &PixelFigures::minimum, &PixelFigures::maximum, &PixelFigures::mean,
             &PixelFigures::first, &PixelFigures::last })
        for (std::size_t c = 0; c < channels; ++c)
            if (!(std::fabs((a.*figure).at(c) - (b.*figure).at(c)) <= tolerance))
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

} // namespace testing_support
