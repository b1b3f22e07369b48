#include "tools/tex_options.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <iterator>
#include <sstream>
#include <utility>

namespace tool {

namespace {

using QUtils::MipFilter;
using QUtils::SourceSample;
using QUtils::TextureCompression;
using QUtils::TextureSample;
using QUtils::TextureSettings;
using QUtils::TextureWrap;

template <typename Value> struct Named {
    const char* name;
    Value value;
};

constexpr Named<MipFilter> tableFilters[] = { { "box", MipFilter::Box }, { "triangle", MipFilter::Triangle },
    { "lanczos3", MipFilter::Lanczos3 }, { "mitchell", MipFilter::Mitchell } };
constexpr Named<TextureWrap> tableWraps[]
    = { { "clamp", TextureWrap::Clamp }, { "periodic", TextureWrap::Periodic },
          { "mirror", TextureWrap::Mirror }, { "black", TextureWrap::Black } };
/// What the source's alpha is.
enum class Alpha { Auto, Straight, Premultiplied, Ignored };

constexpr Named<Alpha> tableAlphas[] = { { "auto", Alpha::Auto }, { "straight", Alpha::Straight },
    { "premultiplied", Alpha::Premultiplied }, { "ignore", Alpha::Ignored } };
constexpr Named<TextureSample> tableSamples[] = { { "8", TextureSample::Byte },
    { "16", TextureSample::Short }, { "half", TextureSample::Half }, { "float", TextureSample::Float } };
constexpr Named<TextureCompression> tableCompressions[]
    = { { "zip", TextureCompression::Zip }, { "deflate", TextureCompression::Zip },
          { "none", TextureCompression::None }, { "piz", TextureCompression::Piz },
          { "dwaa", TextureCompression::Dwaa }, { "lzw", TextureCompression::Lzw } };

/// False when no row has that name.
template <typename Value, std::size_t count>
bool find(const Named<Value> (&table)[count], const std::string& name, Value& value)
{
    const auto found
        = std::find_if(std::begin(table), std::end(table), [&](const auto& row) { return row.name == name; });
    if (found == std::end(table))
        return false;
    value = found->value;
    return true;
}

/// The first name of a value.
template <typename Value, std::size_t count>
const char* nameIn(const Named<Value> (&table)[count], Value value)
{
    const auto found = std::find_if(
        std::begin(table), std::end(table), [&](const auto& row) { return row.value == value; });
    return found == std::end(table) ? "" : found->name;
}

template <typename Value, std::size_t count> std::string listOf(const Named<Value> (&table)[count])
{
    std::string list;
    for (const Named<Value>& row : table)
        list.append(list.empty() ? "" : ", ").append(row.name);
    return list;
}

/// "A" for both, or "A" and "B" with the separator between.
std::pair<std::string, std::string> splitPair(const std::string& text, char separator)
{
    const std::size_t at = text.find(separator);
    return at == std::string::npos ? std::pair(text, text)
                                   : std::pair(text.substr(0, at), text.substr(at + 1));
}

bool readNumber(const std::string& text, int& number)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

/// Which of the two formats a file name stands for.
enum class Target { Exr, Tiff, None };

Target targetOf(const std::string& name)
{
    const std::size_t dot = name.rfind('.');
    std::string extension = dot == std::string::npos ? std::string() : name.substr(dot + 1);
    std::transform(extension.begin(), extension.end(), extension.begin(),
        [](unsigned char letter) { return char(std::tolower(letter)); });
    if (extension == "exr")
        return Target::Exr;
    return extension == "tif" || extension == "tiff" ? Target::Tiff : Target::None;
}

TextureSample sampleFor(SourceSample source, Target target)
{
    if (target == Target::Exr)
        return source == SourceSample::Float ? TextureSample::Float : TextureSample::Half;
    if (source == SourceSample::Byte)
        return TextureSample::Byte;
    return source == SourceSample::Short ? TextureSample::Short : TextureSample::Float;
}

std::string checkTile(const TextureSettings& settings, Target target)
{
    constexpr int largest = 4096, tiffStep = 16;
    for (const int size : { settings.tileWidth, settings.tileHeight }) {
        if (size < 1 || size > largest)
            return "tiles have 1 to 4096 pixels a side";
        if (target == Target::Tiff && size % tiffStep != 0)
            return "tiles of TIFF files have multiples of 16 pixels a side";
    }
    return {};
}

std::string checkFormat(const TextureSettings& settings, Target target)
{
    const bool isInteger = settings.sample == TextureSample::Byte || settings.sample == TextureSample::Short;
    const bool isExrs
        = settings.compression == TextureCompression::Piz || settings.compression == TextureCompression::Dwaa;
    if (target == Target::Exr && isInteger)
        return "OpenEXR has half and float samples only";
    if (target == Target::Tiff && settings.sample == TextureSample::Half)
        return "TIFF has samples of 8 and 16 bits and float";
    if (target == Target::Exr && settings.compression == TextureCompression::Lzw)
        return "OpenEXR has the compressions none, zip, piz and dwaa";
    if (target == Target::Tiff && isExrs)
        return "TIFF has the compressions none, deflate and lzw";
    return {};
}

} // namespace

void TexOptions::declare(CLI::App& command)
{
    command.add_option("IN", in, "the image to read, of any format that this build reads")->required();
    command
        .add_option("-o,--output", out,
            "the texture to write, .exr or .tif; it keeps its old contents until the new ones are complete")
        ->required();
    command.add_option("--tile", tile, "size of a tile, N or WxH")->capture_default_str();
    command.add_option("--filter", filter, "how levels are made: " + listOf(tableFilters))
        ->capture_default_str();
    command.add_option("--wrap", wrap, "what is beyond the edges, MODE or X,Y: " + listOf(tableWraps))
        ->capture_default_str();
    command.add_option("--colour,--color", colour,
        "what the source's colour is, srgb or linear (without it: srgb for whole numbers of up to 16 bits)");
    command.add_flag("--to-linear", toLinear,
        "store sRGB colour in linear light; without it OpenEXR textures too keep the values of the curve");
    command
        .add_option("--alpha", alpha,
            "what the source's alpha is: " + listOf(tableAlphas)
                + " (auto: straight for PNG, TGA, BMP, PSD and DDS; straight colour is multiplied by alpha, "
                  "and "
                  "what is ignored is not written)")
        ->capture_default_str();
    command.add_option("--sample", sample,
        "stored samples: " + listOf(tableSamples) + " (without it: what holds the source's)");
    command.add_option(
        "--compression", compression, listOf(tableCompressions) + " (without it: zip, which is deflate)");
    command.add_option("--dwa-level", dwaLevel, "loss of dwaa, 0 for the least")->capture_default_str();
    command.add_option("--threads", threads, "threads to use (without it: as many as there are)")
        ->check(CLI::Range(1, 256));
    command.add_flag(
        "--update", update, "do nothing when OUT was made of the same bytes with the same settings");
    command.add_flag("--json", json, "print a JSON object that says what was made");
    command.add_flag("--sync", sync, "wait until the file is safe from a power cut");
}

std::string TexOptions::check() const
{
    TextureSettings settings;
    return read({}, settings); // What suits a source suits the format.
}

TextureSettings TexOptions::resolve(const QUtils::SourcePixels& source) const
{
    TextureSettings settings;
    static_cast<void>(read(source, settings));
    return settings;
}

/// The settings, or what is wrong.
std::string TexOptions::read(const QUtils::SourcePixels& source, TextureSettings& settings) const
{
    const Target target = targetOf(out);
    if (target == Target::None)
        return out + ": the extension is none of exr, tif, tiff";
    const auto [width, height] = splitPair(tile, 'x');
    if (!readNumber(width, settings.tileWidth) || !readNumber(height, settings.tileHeight))
        return "--tile takes N or WxH";
    const auto [wrapX, wrapY] = splitPair(wrap, ',');
    if (!find(tableWraps, wrapX, settings.wrapX) || !find(tableWraps, wrapY, settings.wrapY))
        return "--wrap takes one or two of " + listOf(tableWraps);
    if (!find(tableFilters, filter, settings.filter))
        return "--filter takes one of " + listOf(tableFilters);
    settings.sample = sampleFor(source.sample, target);
    if (!sample.empty() && !find(tableSamples, sample, settings.sample))
        return "--sample takes one of " + listOf(tableSamples);
    settings.compression = TextureCompression::Zip;
    if (!compression.empty() && !find(tableCompressions, compression, settings.compression))
        return "--compression takes one of " + listOf(tableCompressions);
    if (!colour.empty() && colour != "srgb" && colour != "linear")
        return "--colour takes srgb or linear";
    Alpha how = Alpha::Auto;
    if (!find(tableAlphas, alpha, how))
        return "--alpha takes one of " + listOf(tableAlphas);
    settings.channels = source.channels;
    if (how == Alpha::Ignored && source.channels % 2 == 0)
        --settings.channels;
    // TIFF textures have no grey with alpha.
    if (target == Target::Tiff && settings.channels == 2)
        settings.channels = 4;
    settings.multiplyAlpha
        = settings.channels % 2 == 0 && (how == Alpha::Straight || (how == Alpha::Auto && source.isStraight));
    settings.isSrgb = colour.empty() ? source.isInteger() : colour == "srgb";
    settings.makeLinear = toLinear;
    settings.dwaLevel = dwaLevel;
    if (!std::isfinite(dwaLevel) || dwaLevel < 0)
        return "--dwa-level takes a number from 0 on";
    std::string obstacle = checkTile(settings, target);
    return obstacle.empty() ? checkFormat(settings, target) : obstacle;
}

const char* textureFormatOf(const std::string& name)
{
    switch (targetOf(name)) {
    case Target::Exr: return "exr";
    case Target::Tiff: return "tiff";
    case Target::None: break;
    }
    return "";
}

std::string describeSettings(const TextureSettings& settings, const char* format)
{
    std::ostringstream text;
    text << "rastkit tex 1 format=" << format << " channels=" << settings.channels
         << " sample=" << nameOf(settings.sample) << " tile=" << settings.tileWidth << 'x'
         << settings.tileHeight << " filter=" << nameIn(tableFilters, settings.filter)
         << " wrap=" << nameIn(tableWraps, settings.wrapX) << ',' << nameIn(tableWraps, settings.wrapY)
         << " colour=" << (settings.isSrgb ? settings.makeLinear ? "srgb-to-linear" : "srgb" : "linear")
         << " alpha="
         << (settings.channels % 2 != 0      ? "none"
                    : settings.multiplyAlpha ? "straight"
                                             : "premultiplied")
         << " compression=" << nameIn(tableCompressions, settings.compression);
    if (settings.compression == TextureCompression::Dwaa)
        text << " dwa-level=" << settings.dwaLevel;
    return text.str();
}

const char* nameOf(TextureSample sample)
{
    return nameIn(tableSamples, sample);
}

} // namespace tool
