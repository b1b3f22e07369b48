#include "rastkit/model/format_tables.h"
#include "rastkit/model/output_naming.h"
#include "rastkit/save.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <string_view>
#include <strings.h>

using QUtils::getFileFormatIndex;
using QUtils::outputNameSize;
using QUtils::PixelBufferChannelInfo;
using QUtils::PixelBufferInterface;

namespace {

/// One format that this build writes, by its first extension. A null writer takes no such pixels.
struct ImageWriter {
    using PackedWriter = ImgError (*)(const char* name, IMGINFO* info, unsigned int* pixels);
    using BufferWriter = ImgError (*)(
        const char* name, PixelBufferInterface& buffer, int channel, int alphaChannel, int flags);

    std::string_view extension;
    PackedWriter savePacked;
    BufferWriter saveBuffer;
};

// clang-format off
constexpr ImageWriter tableImageWriters[] = {
    // extension  packed pixels  frame
    { "png",      SavePNGFile,   SavePNGFile_pb },
    { "sgi",      SaveSGIFile,   SaveSGIFile_pb },
    { "bmp",      SaveBMPFile,   SaveBMPFile_pb },
    { "tga",      SaveTGAFile,   SaveTGAFile_pb },
    { "hdr",      nullptr,       SaveHDRFile_pb },
    { "jpg",      SaveJPGFile,   SaveJPGFile_pb },
    { "exr",      SaveEXRFile,   SaveEXRFile_pb },
    { "pic",      SavePICFile,   SavePICFile_pb },
    { "tif",      SaveTIFFile,   SaveTIFFile_pb },
};
// clang-format on

/// The row of the format with that index, or with the name's own when the index is -1; null when there is
/// no such format or this build does not write it.
const ImageWriter* findWriter(const char* fileName, int formatIndex)
{
    const int index = formatIndex == -1 ? getFileFormatIndex(fileName, nullptr) : formatIndex;
    if (index < 0 || index >= QUtils::supportedCount)
        return nullptr;
    const char* const extensions = QUtils::supported[index].extensions;
    const std::string_view first(extensions, std::strcspn(extensions, ";"));
    const auto found = std::find_if(std::begin(tableImageWriters), std::end(tableImageWriters),
        [&](const ImageWriter& writer) { return writer.extension == first; });
    return found == std::end(tableImageWriters) ? nullptr : found;
}

bool endsWithIgnoringCase(const char* text, std::string_view end)
{
    if (!text)
        return false;
    const std::size_t length = std::strlen(text);
    return length >= end.size() && strcasecmp(text + length - end.size(), end.data()) == 0;
}

bool isAlpha(const PixelBufferChannelInfo& info)
{
    return info.channelId == QUtils::PIXELCHANNEL_ALPHA || info.channelId == QUtils::PIXELCHANNEL_ALPHA_2;
}

/// The first alpha channel of a frame, -1 when it has none.
int findAlphaChannel(PixelBufferInterface& buffer)
{
    const int count = buffer.getNumChannels();
    for (int i = 0; i < count; ++i) {
        PixelBufferChannelInfo info;
        if (buffer.getChannelInfo(i, info) && isAlpha(info))
            return i;
    }
    return -1;
}

bool isLeftOut(const PixelBufferChannelInfo& info, int flags)
{
    return ((flags & QUtils::SAVE_SKIP_ALPHA_CHANNELS) && isAlpha(info))
        || ((flags & QUtils::SAVE_SKIP_COLOR_126) && info.channelId == QUtils::PIXELCHANNEL_COLOR_2);
}

/// Makes the folder that `name` lies in. `folder` remembers the last one: a name without a folder makes
/// the remembered one again, which hosts rely on.
void makeFolderOf(const char* name, char (&folder)[outputNameSize])
{
    if (const char* const separator = QUtils::findSeparator(name))
        QUtils::copyBounded(name, folder, int(separator - name) + 2); // The separator and a terminator.
    QUtils::uniMakeDir(folder);
}

} // namespace

ImgError SaveImageFile(const char* fileName, IMGINFO* info, unsigned int* pixels)
{
    const ImageWriter* const writer = findWriter(fileName, -1);
    return writer && writer->savePacked ? writer->savePacked(fileName, info, pixels) : IMGERR_UNSUPPORTED;
}

ImgError SaveImageFile(const char* fileName, IMGINFO* info, float* pixels)
{
    // The two formats that take floats go by the name's literal end, not by the format list. The second takes
    // three floats a pixel and is handed four: pixels, and from the second on colours, are not at their
    // place. Hosts that save floats to it have always passed three.
    if (endsWithIgnoringCase(fileName, ".EXR"))
        return SaveEXRFile(fileName, info, pixels);
    if (endsWithIgnoringCase(fileName, ".HDR"))
        return SaveHDRFile(fileName, info, pixels);

    IMGINFO packedInfo {};
    const std::unique_ptr<unsigned int, decltype(&std::free)> packed(
        CreateUInt32FromFloat(*info, pixels, packedInfo), &std::free);
    if (!packed)
        return IMGERR_MEMORY;
    return SaveImageFile(fileName, &packedInfo, packed.get());
}

ImgError SaveImageFile(const char* fileName, PixelBufferInterface& buffer, int channel, int alphaChannel,
    int formatIndex, int flags)
{
    const ImageWriter* const writer = findWriter(fileName, formatIndex);
    if (!writer || !writer->saveBuffer)
        return IMGERR_UNSUPPORTED;
    return writer->saveBuffer(fileName, buffer, channel, alphaChannel, flags);
}

ImgError SaveImageFile(
    const char* fileName, PixelBufferInterface& buffer, int channel, int alphaChannel, int formatIndex)
{
    return SaveImageFile(fileName, buffer, channel, alphaChannel, formatIndex, 0);
}

ImgError SaveImageFile_allChannels(const char* fileName, PixelBufferInterface& buffer, int formatIndex,
    int frame, char divider, int numDigits, bool separateFolder, int flags, bool nameColorChannel)
{
    const int count = buffer.getNumChannels();
    const int alphaChannel = (flags & QUtils::SAVE_NO_ALPHA_PAIRING) ? -1 : findAlphaChannel(buffer);
    const bool addFrameNumber = (flags & QUtils::SAVE_ADD_FRAME_NUMBER) != 0;

    ImgError result;
    char folder[outputNameSize] = "";
    for (int i = 0; i < count; ++i) {
        PixelBufferChannelInfo info;
        if (!buffer.getChannelInfo(i, info) || isLeftOut(info, flags))
            continue;
        char name[outputNameSize] = "";
        if (SaveImageFile_getFilename(fileName, info, divider, addFrameNumber, frame, numDigits, name,
                outputNameSize, separateFolder, nameColorChannel))
            makeFolderOf(name, folder);
        if (SaveImageFile(name, buffer, i, alphaChannel, formatIndex, flags).code() != IMGERR_NONE)
            result = IMGERR_WRITE; // The other channels are still written.
    }
    return result;
}

// The raw-output writers take everything from the settings.
ImgError SaveImageFile_multiChannel(const char* fileName, QUtils::RawImageSettingsInterface* settings,
    PixelBufferInterface*, bool addFrameNumber, int frame, int numDigits)
{
    using Writer = ImgError (*)(const char* fileName, QUtils::RawImageSettingsInterface* settings);
    char extension[sizeof QUtils::FileFormatInfo::extensions];
    if (getFileFormatIndex(fileName, extension) < 0)
        return IMGERR_UNSUPPORTED;
    const Writer write = strcasecmp(extension, "quimg") == 0 ? SaveQUIMGFile
        : strcasecmp(extension, "exr") == 0                  ? Writer(SaveEXRFile)
                                                             : nullptr;
    if (!write)
        return IMGERR_UNSUPPORTED;
    char name[outputNameSize];
    SaveImageFile_getFilename(fileName, addFrameNumber, frame, numDigits, name, outputNameSize);
    return write(name, settings);
}
