#include "tools/commands.h"
#include "tools/content_hash.h"
#include "tools/input.h"
#include "tools/json.h"
#include "tools/messages.h"
#include "tools/output.h"
#include "tools/progress.h"
#include "tools/tex_options.h"
#include "tools/threads.h"

#include "rastkit/buffers.h"
#include "rastkit/image/image_comment.h"
#include "rastkit/image/standard_load.h"
#include "rastkit/tiles.h"

#include <cerrno>
#include <iostream>
#include <memory>
#include <sys/stat.h>

namespace tool {

namespace {

using QUtils::TextureSettings;
using QUtils::TextureWriter;

constexpr const char* cannotRead = "cannot be read";
constexpr const char* cannotWrite = "cannot be written";

/// Hands an image on to the texture, and shows how far it is.
class TextureSink : public QUtils::ImgRowBuffer {
public:
    TextureSink(TextureWriter& texture, const std::string& label) : m_texture(texture), m_progress(label) { }

    void init(int width, int height) override
    {
        m_width = width;
        m_height = height;
        m_done = 0;
        m_texture.init(width, height);
        m_hasFailed = m_texture.isValid() == 0;
    }
    int isValid() override { return m_texture.isValid(); }
    void freeMem() override { m_texture.freeMem(); }
    void setPixelF(int x, int y, const float* rgba) override { setRowF(x, y, 1, rgba); }
    void setPixel(int x, int y, unsigned int argb) override { setRow(x, y, 1, &argb); }
    /// Throws IMGERR_WRITE when the texture has failed: the rest of the source need not be read.
    void setRow(int x, int y, int count, const unsigned int* argb) override
    {
        m_texture.setRow(x, y, count, argb);
        advance(count);
    }
    /// The same.
    void setRowF(int x, int y, int count, const float* rgba) override
    {
        m_texture.setRowF(x, y, count, rgba);
        advance(count);
    }

    /// Whether the texture could not be begun or gone on with; it knows why.
    bool hasFailed() const { return m_hasFailed; }
    int width() const { return m_width; }
    int height() const { return m_height; }

private:
    void advance(int count)
    {
        if (m_texture.isValid() == 0) {
            m_hasFailed = true;
            throw IMGERR_WRITE;
        }
        m_done += std::uint64_t(count);
        m_progress.update(m_done, std::uint64_t(m_width) * std::uint64_t(m_height));
    }

    TextureWriter& m_texture;
    Progress m_progress;
    int m_width = 0, m_height = 0;
    std::uint64_t m_done = 0;
    bool m_hasFailed = false;
};

/// Reads an image; what the sink throws is the result too.
ImgError load(const std::string& name, TextureSink& sink)
{
    try {
        return QUtils::loadStandard(name.c_str(), sink, nullptr);
    } catch (const ImgErrorCode code) {
        return code;
    }
}

/// What was made of what.
struct Outcome {
    TextureSettings settings;
    std::string hash;
    int width = 0, height = 0;
    bool isWritten = false;
};

Json toJson(const TexOptions& options, const Outcome& outcome)
{
    Json json { { "in", options.in }, { "out", options.out }, { "written", outcome.isWritten },
        { "sha1", outcome.hash },
        { "settings", describeSettings(outcome.settings, textureFormatOf(options.out)) } };
    if (outcome.isWritten) {
        json["width"] = outcome.width;
        json["height"] = outcome.height;
    }
    json["channels"] = outcome.settings.channels;
    json["sample"] = nameOf(outcome.settings.sample);
    return json;
}

/// Whether both names stand for one file, by whatever links.
bool isSameFile(const std::string& one, const std::string& other)
{
    struct stat first, second;
    return ::stat(one.c_str(), &first) == 0 && ::stat(other.c_str(), &second) == 0
        && first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

/// Looks at the source, and chooses the settings. An ExitCode.
int prepare(const TexOptions& options, Outcome& outcome)
{
    if (const InputFile file = examineInput(options.in); !file.obstacle.empty()) {
        reportFailure(options.in, cannotRead, file.obstacle);
        return EXIT_FILE;
    }
    QUtils::SourcePixels source;
    if (const ImgError error = QUtils::describeSourcePixels(options.in.c_str(), source);
        error.code() != IMGERR_NONE) {
        reportFailure(options.in, cannotRead, inWords(error));
        return EXIT_FILE;
    }
    outcome.settings = options.resolve(source);
    std::string obstacle;
    outcome.hash = hashFile(options.in, obstacle);
    if (!obstacle.empty())
        reportFailure(options.in, cannotRead, obstacle);
    return obstacle.empty() ? EXIT_DONE : EXIT_FILE;
}

/// Reads the source into a file of that name. Why that failed, with `isRead` saying which of both it was;
/// empty when it did not.
std::string make(const TexOptions& options, const std::string& name, Outcome& outcome, bool& isRead)
{
    TextureWriter texture(name.c_str(), outcome.settings);
    TextureSink sink(texture, options.out);
    const ImgError read = load(options.in, sink);
    isRead = read.code() == IMGERR_NONE || sink.hasFailed();
    if (!isRead)
        return inWords(read);
    errno = 0;
    const ImgError written = texture.finish();
    outcome.width = sink.width();
    outcome.height = sink.height();
    return written.code() == IMGERR_NONE ? std::string() : writeReason(written, errno);
}

/// Why nothing of that kind may become a texture; empty for files, and for what is not there.
std::string obstacleOf(const std::string& name)
{
    struct stat status;
    const bool isPipe
        = ::stat(name.c_str(), &status) == 0 && (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode));
    return isPipe ? "a texture is not written from its beginning to its end, as a pipe needs it" : "";
}

/// An ExitCode.
int write(const TexOptions& options, Outcome& outcome, const std::string& comment)
{
    outcome.settings.comment = comment.c_str();
    useThreads(options.threads);
    bool isRead = true;
    const std::string obstacle = writeAtomically(options.out, options.sync,
        [&](const std::string& name) { return make(options, name, outcome, isRead); });
    outcome.settings.comment = nullptr;
    outcome.isWritten = obstacle.empty();
    if (!obstacle.empty())
        reportFailure(isRead ? options.out : options.in, isRead ? cannotWrite : cannotRead, obstacle);
    return obstacle.empty() ? EXIT_DONE : EXIT_FILE;
}

/// Whether a texture that this program wrote has its end: TIFF's directories, of which the smallest level's
/// is the last, and OpenEXR's last tile, which is that level's.
bool hasItsEnd(const std::string& name)
{
    EXRTileLoaderParams exr;
    TIFTileLoaderParams tiff;
    const bool isExr = *textureFormatOf(name) == 'e';
    const ImgError error = isExr ? LoadEXRHeaderEx(name.c_str(), exr) : LoadTIFHeaderEx(name.c_str(), tiff);
    MipMapTileLoaderParams& texture = isExr ? static_cast<MipMapTileLoaderParams&>(exr) : tiff;
    if (error.code() != IMGERR_NONE || !texture.isMipmapped || texture.numLevels < 1)
        return false;
    texture.fileName = name.c_str();
    const MipLevel& smallest = texture.levels[texture.numLevels - 1];
    QUtils::ImageF tile;
    tile.init(texture.tileWidth, texture.tileHeight);
    return smallest.width == 1 && smallest.height == 1 && tile.isValid()
        && texture.loadTile(0, 0, texture.numLevels - 1, tile).code() == IMGERR_NONE;
}

/// Whether a texture is there, as a whole, that has that text.
bool isMadeOf(const std::string& name, const std::string& comment)
{
    return QUtils::readImageComment(name.c_str()) == comment && hasItsEnd(name);
}

/// OpenEXR files are taken for linear light as a rule.
bool keepsCurveUnasked(const TexOptions& options, const TextureSettings& settings)
{
    return *textureFormatOf(options.out) == 'e' && settings.isSrgb && !settings.makeLinear
        && options.colour.empty();
}

int tex(const TexOptions& options)
{
    std::string wrong = options.check();
    if (wrong.empty() && isSameFile(options.in, options.out))
        wrong = options.out + " is the source itself";
    if (!wrong.empty()) {
        reportMessage(wrong);
        return EXIT_USAGE;
    }
    if (const std::string obstacle = obstacleOf(options.out); !obstacle.empty()) {
        reportFailure(options.out, cannotWrite, obstacle);
        return EXIT_FILE;
    }
    Outcome outcome;
    if (const int exitCode = prepare(options, outcome); exitCode != EXIT_DONE)
        return exitCode;
    const std::string comment
        = describeSettings(outcome.settings, textureFormatOf(options.out)) + " SHA-1=" + outcome.hash;
    const bool isUpToDate = options.update && isMadeOf(options.out, comment);
    const int exitCode = isUpToDate ? int(EXIT_DONE) : write(options, outcome, comment);
    if (exitCode != EXIT_DONE)
        return exitCode;
    if (!isUpToDate && keepsCurveUnasked(options, outcome.settings))
        reportMessage(options.out
            + ": colour is stored by the curve of sRGB (--to-linear stores linear light, --colour srgb says "
              "that this is meant)");
    if (options.json)
        printJson(toJson(options, outcome));
    else if (options.update)
        std::cout << options.out << (isUpToDate ? ": up to date\n" : ": written\n");
    return EXIT_DONE;
}

} // namespace

Action addTex(CLI::App& command)
{
    const auto options = std::make_shared<TexOptions>();
    options->declare(command);
    return [options] { return tex(*options); };
}

} // namespace tool
