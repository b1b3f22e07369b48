#include "rastkit/model/output_naming.h"

#include "rastkit/save.h"

#include <cstring>
#include <initializer_list>

namespace {

using QUtils::copyBounded;
using QUtils::findSeparator;
using QUtils::outputNameSize;
using QUtils::PixelBufferChannelInfo;

const char* const colorChannelName = "rgba";

bool isColorChannel(const PixelBufferChannelInfo& channel)
{
    return channel.channelId == QUtils::PIXELCHANNEL_COLOR
        || channel.channelId == QUtils::PIXELCHANNEL_COLOR_2;
}

/// Writes `fileName` to `out` with the divider and the channel's name before the extension. A divider of
/// 0 ends the suffix before it begins.
void appendChannelName(const char* fileName, char divider, const char* channelName, char* out, int outSize)
{
    char suffix[outputNameSize];
    suffix[0] = divider;
    QUtils::makeValidName(channelName, suffix + 1, outputNameSize - 1);
    QUtils::appendFileName(fileName, suffix, out, outSize, false);
}

/// Appends at most `count` characters of `text`, up to 511 in all.
void appendTo(char (&path)[outputNameSize], const char* text, std::size_t count)
{
    const std::size_t length = std::strlen(path);
    const std::size_t room = outputNameSize - 1 - length;
    count = strnlen(text, count < room ? count : room);
    std::memcpy(path + length, text, count);
    path[length + count] = '\0';
}

/// Moves the file `out` into a folder named after the channel, beside where it is. The name stands as it
/// is, deliberately: a channel "a/b" makes two folders, while its file name has "a_b".
void insertFolder(const char* folder, char* out, int outSize)
{
    if (outSize < 1)
        return;
    const char* const separator = findSeparator(out);
    if (!separator)
        return;
    char path[outputNameSize] = "";
    appendTo(path, out, std::size_t(separator - out) + 1);
    appendTo(path, folder, outputNameSize);
    appendTo(path, separator, outputNameSize);
    copyBounded(path, out, outSize);
}

void insertFrameNumber(int numDigits, int frame, char* out, int outSize)
{
    if (outSize < 1)
        return;
    char scratch[outputNameSize];
    QUtils::appendFrameNumber(out, numDigits, frame, scratch, outputNameSize, true);
    copyBounded(scratch, out, outSize);
}

} // namespace

const char* QUtils::findSeparator(const char* path)
{
    for (std::size_t i = std::strlen(path); i > 1; --i) {
        if (path[i - 1] == '/' || path[i - 1] == '\\')
            return path + i - 1;
    }
    return nullptr;
}

void SaveImageFile_getFilename(
    const char* fileName, bool addFrameNumber, int frame, int numDigits, char* out, int outSize)
{
    copyBounded(fileName, out, outSize);
    if (addFrameNumber)
        insertFrameNumber(numDigits, frame, out, outSize);
}

int SaveImageFile_getFilename(const char* fileName, const PixelBufferChannelInfo& channel, char divider,
    bool addFrameNumber, int frame, int numDigits, char* out, int outSize, bool separateFolder,
    bool nameColorChannel)
{
    const bool isColor = isColorChannel(channel);
    const bool isNamed = !isColor || (separateFolder && nameColorChannel);
    const char* const name = isColor ? colorChannelName : channel.name.c_str();

    if (isNamed)
        appendChannelName(fileName, divider, name, out, outSize);
    else
        copyBounded(fileName, out, outSize);
    const bool hasFolder = isNamed && separateFolder;
    if (hasFolder)
        insertFolder(name, out, outSize);
    if (addFrameNumber)
        insertFrameNumber(numDigits, frame, out, outSize);
    return hasFolder ? 1 : 0;
}
