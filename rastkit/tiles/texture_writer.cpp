#include "rastkit/texture_writer.h"

#include "rastkit/exr/exr_library.h"
#include "rastkit/model/format_tables.h"
#include "rastkit/tiles/texture_image.h"

#include <ImfThreading.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <string>
#include <utility>

namespace QUtils {
inline namespace RASTKIT_ABI {

namespace {

constexpr int mostThreads = 256;

int countEncoders(int threads)
{
    startExrLibrary();
    return std::clamp(threads == 0 ? Imf::globalThreadCount() : threads, 0, mostThreads);
}

} // namespace

struct TextureWriter::State {
    std::string fileName, comment;
    TextureSettings settings;
    TextureFormat format = TextureFormat::Exr;
    ImgErrorCode error = IMGERR_NONE; ///< The first one.
    int systemError = 0;
    std::unique_ptr<TextureImage> image; ///< Null before `init`, after an error, and at the end.
    bool isFinished = false;

    State(const char* name, const TextureSettings& wanted)
        : fileName(name ? name : ""), comment(wanted.comment ? wanted.comment : ""), settings(wanted)
    {
        const ImageLoader* const loader = findLoaderByExtension(fileName.c_str());
        const bool isExr = loader && loader->type == IMGTYPE_EXR;
        const bool isTiff = loader && loader->type == IMGTYPE_TIFF;
        format = isTiff ? TextureFormat::Tiff : TextureFormat::Exr;
        error = isExr || isTiff ? checkSettings(settings, format) : IMGERR_UNSUPPORTED;
        settings.comment = nullptr; // The caller's.
    }

    void fail(ImgErrorCode code)
    {
        error = code;
        if (image)
            systemError = image->systemError();
        image.reset();
    }

    /// Does a part of the work, unless there was an error. Refused memory is one, by whatever exception.
    template <typename Work> void fenced(const Work& work)
    {
        if (!image)
            return;
        try {
            work();
            if (const ImgErrorCode code = image->error())
                fail(code);
        } catch (const std::exception&) {
            fail(IMGERR_MEMORY);
        }
    }

    void init(int width, int height);
    ImgErrorCode finish();
};

void TextureWriter::State::init(int width, int height)
{
    image.reset(); // A loader that has failed may have come this far.
    isFinished = false;
    if (error != IMGERR_NONE)
        return;
    if (!TextureImage::fits(width, height, settings))
        return fail(IMGERR_UNSUPPORTED);
    try {
        image = std::make_unique<TextureImage>(
            width, height, format, settings, comment, countEncoders(settings.threads));
        if (const ImgErrorCode code = image->begin(fileName.c_str()))
            fail(code);
    } catch (const std::exception&) { // std::bad_alloc, or std::length_error for the same reason.
        fail(IMGERR_MEMORY);
    }
}

ImgErrorCode TextureWriter::State::finish()
{
    if (isFinished || error != IMGERR_NONE)
        return error;
    if (!image)
        return IMGERR_WRITE; // There was no image.
    ImgErrorCode code = IMGERR_NONE;
    try {
        code = image->finish();
    } catch (const std::exception&) {
        code = IMGERR_MEMORY;
    }
    fail(code);
    isFinished = true;
    return code;
}

TextureWriter::TextureWriter(const char* fileName, const TextureSettings& settings)
    : m_state(std::make_unique<State>(fileName, settings))
{
}

TextureWriter::~TextureWriter() = default;

void TextureWriter::init(int width, int height)
{
    m_state->init(width, height);
}

int TextureWriter::isValid()
{
    return m_state->image ? 1 : 0;
}

void TextureWriter::freeMem()
{
    m_state->image.reset();
}

void TextureWriter::setPixelF(int x, int y, const float* rgba)
{
    setRowF(x, y, 1, rgba);
}

void TextureWriter::setPixel(int x, int y, unsigned int argb)
{
    setRow(x, y, 1, &argb);
}

void TextureWriter::setRow(int x, int y, int count, const unsigned int* argb)
{
    m_state->fenced([&] { m_state->image->put(x, y, count, argb, 1); });
}

void TextureWriter::setRowF(int x, int y, int count, const float* rgba)
{
    m_state->fenced([&] { m_state->image->put(x, y, count, rgba, 4); });
}

ImgError TextureWriter::finish()
{
    const ImgErrorCode code = m_state->finish();
    if (m_state->systemError != 0)
        errno = m_state->systemError;
    return code;
}

} // namespace RASTKIT_ABI
} // namespace QUtils
