#include "tools/raw_convert.h"

#include "tools/commands.h"
#include "tools/messages.h"
#include "tools/output.h"
#include "tools/raw_frame.h"
#include "tools/threads.h"

#include "qutils/core/paths.h"
#include "qutils/raw/exr_file.h"
#include "rastkit/buffers.h"
#include "rastkit/image/format_support.h"
#include "rastkit/image/standard_save.h"
#include "rastkit/save.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <set>

namespace tool {

namespace {

using QUtils::RIChannelInfo;
using QUtils::RIHeader;
using QUtils::RIReader;
using QUtils::RIRegionInfo;

constexpr const char* cannotRead = "cannot be read";
constexpr const char* cannotWrite = "cannot be written";

/// Writes all that the file holds into one OpenEXR file. Why that failed; empty when it did not.
std::string writeExr(const std::string& name, RIReader& reader, RawRows& rows)
{
    const RIHeader& header = reader.header();
    RawChannelList channels(reader);
    std::string text = header.sceneText.c_str();
    RISceneInfo scene { header.sceneNumber, text.data() };
    QUtils::ExrFile file(0);
    ErrorCode error;
    const auto then = [&error](const auto& call) {
        if (error.code() == 0)
            error = call();
    };
    then([&] { return file.Create(name.c_str(), nullptr); });
    then([&] { return file.WriteHeader(0); });
    then([&] { return file.WTResolution(header.width, header.height, header.pixelAspect); });
    then([&] { return file.WTRenderRegion(header.renderRegion); });
    then([&] { return file.WTRegionsInfo(header.regWidth, header.regHeight, header.regType); });
    then([&] { return file.WTChannelInfo(channels.table()); });
    then([&] { return file.WTCameraInfo(header.camera); });
    then([&] { return file.WTSceneInfo(scene); });
    then([&] { return file.WTRegion(&rows, -1, 0, 0); });
    then([&] { return file.Close(); });
    if (!rows.obstacle().empty())
        return rows.obstacle();
    return error.code() == 0 ? std::string() : error.message();
}

/// What one component of an integer channel is multiplied with, so that formats without floats show
/// numbers as numbers: as far as they have room for them.
float integerScale(const std::string& format)
{
    const bool hasFloats = format == "exr" || format == "tif" || format == "hdr";
    return hasFloats ? 1.0f : format == "png" || format == "sgi" ? 1 / 65535.0f : 1 / 255.0f;
}

/// The channel that holds the picture's alpha; -1 for none.
int findAlpha(const RIReader& reader)
{
    for (const int id : { 2, 125 })
        for (int i = 0; i < reader.getNumChannels(); ++i)
            if (reader.getChannel(i).channelId == id && reader.getChannel(i).numComponents == 1)
                return i;
    return -1;
}

/// One channel of the frame as an image of the whole resolution.
class ChannelImage {
public:
    ChannelImage(RIReader& reader, int channel, float scale)
        : m_reader(reader), m_channel(channel), m_alpha(needsAlpha() ? findAlpha(reader) : -1),
          m_scale(info().sampleType == QUtils::RISAMPLE_UINT ? scale : 1.0f)
    {
    }

    /// Why it cannot be had; empty when `image` holds it. Missing and damaged regions are zero.
    std::string load(QUtils::ImageF& image)
    {
        const RIHeader& header = m_reader.header();
        image.setMaxBytes(4 * QUtils::RowImage::defaultMaxBytes);
        image.init(header.width, header.height);
        if (!image.isValid())
            return "out of memory";
        for (int y = 0; y < header.height; ++y)
            std::fill_n(image.rowDataF(y), std::size_t(header.width) * 4, 0.0f);
        const RIRegionInfo& rendered = header.renderRegion;
        const int step
            = rowsAtOnce(m_reader, std::uint64_t(rendered.right - rendered.left) * 4 * sizeof(float));
        for (int top = rendered.top; top < rendered.bottom; top += std::min(step, rendered.bottom - top)) {
            const RIRegionInfo band { rendered.left, top, rendered.right,
                top + std::min(step, rendered.bottom - top) };
            const ErrorCode error = loadBand(band, image);
            if (error.code() != 0 && error.code() != QUtils::RIERR_READ)
                return error.message();
            if (error.code() != 0 && m_damage.empty())
                m_damage = error.message();
        }
        return {};
    }
    /// Empty when no region turned out to be damaged.
    const std::string& damage() const { return m_damage; }

private:
    const RIChannelInfo& info() const { return m_reader.getChannel(m_channel); }
    /// The picture itself, when it has three components.
    bool needsAlpha() const
    {
        return (info().channelId == 1 || info().channelId == 126) && info().numComponents == 3;
    }

    ErrorCode loadBand(const RIRegionInfo& band, QUtils::ImageF& image)
    {
        const std::size_t width = std::size_t(band.right - band.left),
                          rows = std::size_t(band.bottom - band.top);
        const std::size_t components = std::size_t(info().numComponents);
        m_samples.resize(width * components * rows);
        const ErrorCode error
            = m_reader.readPixelsFloat(m_channel, band, m_samples.data(), width * components * sizeof(float));
        ErrorCode alphaError;
        if (m_alpha >= 0) {
            m_alphas.resize(width * rows);
            alphaError = m_reader.readPixelsFloat(m_alpha, band, m_alphas.data(), width * sizeof(float));
        }
        for (std::size_t y = 0; y < rows; ++y)
            expand(m_samples.data() + y * width * components, m_alpha >= 0 ? &m_alphas[y * width] : nullptr,
                width, image.rowDataF(band.top + int(y)) + std::size_t(band.left) * 4);
        return error.code() != 0 ? error : alphaError;
    }

    /// One component is grey, two are red and green.
    void expand(const float* samples, const float* alphas, std::size_t count, float* rgba) const
    {
        const int components = info().numComponents;
        for (std::size_t x = 0; x < count; ++x, samples += components, rgba += 4) {
            rgba[0] = samples[0] * m_scale;
            rgba[1] = (components == 1 ? samples[0] : samples[1]) * m_scale;
            rgba[2] = (components == 1 ? samples[0] : components == 2 ? 0.0f : samples[2]) * m_scale;
            rgba[3] = components == 4 ? samples[3] : alphas ? alphas[x] : 1.0f;
        }
    }

    RIReader& m_reader;
    int m_channel, m_alpha;
    float m_scale;
    std::string m_damage;
    std::vector<float> m_samples, m_alphas;
};

/// A channel's name as it may stand in a path. A file's names could lead anywhere else.
std::string pathName(const char* name)
{
    constexpr std::size_t mostBytes = 100; // It may stand in the path twice.
    char valid[mostBytes + 1];
    QUtils::makeValidName(name, valid, sizeof valid);
    const std::string text = valid;
    return text.empty() || text == "." || text == ".." ? "channel" : text;
}

/// The names of the channels' files. The picture has the name as it is; no two channels get the same.
class ChannelNames {
public:
    ChannelNames(std::string out, bool folders) : m_out(std::move(out)), m_folders(folders) { }

    /// Whether there is room for all names in the paths that the naming builds.
    bool fits() const { return m_out.size() < 256; }

    /// Makes the folder too. Why that failed is found out when the file is made.
    std::string claim(const RIChannelInfo& channel)
    {
        QUtils::PixelBufferChannelInfo info;
        info.channelId = channel.channelId;
        const std::string base = pathName(channel.name.c_str());
        info.name = base.c_str();
        std::string name = build(info);
        if (m_taken.count(name) && info.channelId != 0) {
            info.channelId = 0; // A second picture goes by its name.
            name = build(info);
        }
        for (int& number = m_numbers.try_emplace(base, 2).first->second; m_taken.count(name); ++number) {
            info.name = (base + "_" + std::to_string(number)).c_str();
            name = build(info);
        }
        m_taken.insert(name);
        makeFolder(name);
        return name;
    }

private:
    std::string build(const QUtils::PixelBufferChannelInfo& info) const
    {
        char name[1024];
        constexpr char divider = '_';
        SaveImageFile_getFilename(
            m_out.c_str(), info, divider, false, 0, 0, name, sizeof name, m_folders, false);
        return name;
    }
    void makeFolder(const std::string& name) const
    {
        const std::string folder = name.substr(0, name.find_last_of('/') + 1);
        if (m_folders && !folder.empty())
            QUtils::uniMakeDir(folder.c_str());
    }

    std::string m_out;
    bool m_folders;
    std::set<std::string> m_taken;
    std::map<std::string, int> m_numbers; // The first that a repeated name has not tried yet.
};

/// Why a channel's file was not written; empty when it was.
std::string writeChannel(const std::string& name, int formatIndex, const QUtils::ImageF& image)
{
    return writeAtomically(name, false, [&](const std::string& temporary) {
        errno = 0;
        const ImgError error = QUtils::saveStandard(temporary.c_str(), formatIndex, image);
        return error.code() == IMGERR_NONE ? std::string() : writeReason(error, errno);
    });
}

/// Says what is not in the output because it is not in the file; whether nothing is.
bool reportMissing(const std::string& name, const RIReader& reader, const std::string& damage)
{
    if (!damage.empty())
        reportFailure(name, "is damaged", damage);
    if (reader.countMissingRegions() > 0)
        reportFailure(name, "is not complete", doneText(reader) + " are there; the others are zero");
    return damage.empty() && reader.countMissingRegions() == 0;
}

int convertToOne(const RawConvertArguments& arguments, RIReader& reader)
{
    RawRows rows(reader);
    const std::string obstacle = writeAtomically(
        arguments.out, false, [&](const std::string& name) { return writeExr(name, reader, rows); });
    if (!obstacle.empty()) {
        reportFailure(arguments.out, cannotWrite, obstacle);
        return EXIT_FILE;
    }
    return reportMissing(arguments.in, reader, rows.damage()) ? EXIT_DONE : EXIT_NO;
}

int convertToMany(const RawConvertArguments& arguments, RIReader& reader, const QUtils::FormatSupport& format)
{
    ChannelNames names(arguments.out, arguments.folders);
    if (!names.fits()) {
        reportFailure(arguments.out, cannotWrite, "the name is too long");
        return EXIT_FILE;
    }
    std::string damage;
    for (int i = 0; i < reader.getNumChannels(); ++i) {
        QUtils::ImageF image;
        const std::string name = names.claim(reader.getChannel(i));
        ChannelImage channel(reader, i, integerScale(format.extensions.front()));
        std::string obstacle = channel.load(image);
        if (obstacle.empty())
            obstacle = writeChannel(name, format.formatIndex, image);
        if (!obstacle.empty()) {
            reportFailure(name, cannotWrite, obstacle);
            return EXIT_FILE;
        }
        if (damage.empty())
            damage = channel.damage();
    }
    return reportMissing(arguments.in, reader, damage) ? EXIT_DONE : EXIT_NO;
}

} // namespace

int convertRaw(const RawConvertArguments& arguments)
{
    const int formatIndex = chooseFormat(arguments.out);
    if (formatIndex < 0)
        return EXIT_USAGE;
    RIReader reader;
    if (const std::string obstacle = openRaw(reader, arguments.in); !obstacle.empty()) {
        reportFailure(arguments.in, cannotRead, obstacle);
        return EXIT_FILE;
    }
    useThreads();
    const auto formats = QUtils::listFormats();
    const QUtils::FormatSupport& format = *QUtils::findFormat(formats, arguments.out.c_str());
    const bool isExr = format.extensions.front() == "exr";
    return isExr && !arguments.separate ? convertToOne(arguments, reader)
                                        : convertToMany(arguments, reader, format);
}

} // namespace tool
