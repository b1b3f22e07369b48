#include "rastkit/image/format_support.h"

#include "rastkit/image/standard_load.h"
#include "rastkit/image/standard_save.h"
#include "rastkit/model/format_tables.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <iterator>

namespace QUtils {

namespace {

std::string toLower(std::string text)
{
    for (char& c : text)
        c = char(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

bool contains(const std::vector<std::string>& list, const std::string& text)
{
    return std::find(list.begin(), list.end(), text) != list.end();
}

std::vector<std::string> extensionsOf(const FileFormatInfo& format)
{
    std::vector<std::string> extensions;
    anyAlternative(format.extensions, ';', [&](const char* begin, std::size_t length) {
        extensions.emplace_back(begin, length);
        return false;
    });
    return extensions;
}

std::vector<std::string> extensionsOf(const ImageLoader& loader)
{
    std::vector<std::string> extensions;
    anyAlternative(loader.extensions, '|', [&](const char* begin, std::size_t length) {
        extensions.push_back(toLower(std::string(begin + 1, length - 1)));
        return false;
    });
    return extensions;
}

/// The description without the pattern that it ends in for file dialogs.
std::string plainDescription(const FileFormatInfo& format)
{
    const std::string text = format.description;
    return text.substr(0, text.rfind(" (*."));
}

std::vector<FormatSupport> offeredFormats()
{
    std::vector<FormatSupport> formats;
    formats.reserve(supportedCount);
    for (int i = 0; i < supportedCount; ++i)
        formats.push_back({ extensionsOf(supported[i]), plainDescription(supported[i]), IMGTYPE_UNKNOWN, i,
            false, writesStandard(i) });
    return formats;
}

/// Joins a reader with the writable format of its extension, or adds it as one that is only read.
void addReader(std::vector<FormatSupport>& formats, const ImageLoader& loader)
{
    const std::vector<std::string> extensions = extensionsOf(loader);
    auto format = std::find_if(formats.begin(), formats.end(),
        [&](const FormatSupport& other) { return contains(other.extensions, extensions.front()); });
    if (format == formats.end())
        // The list offered to users has descriptions, but DDS files are read alone.
        format
            = formats.insert(format, { extensions, "DirectDraw surface", IMGTYPE_UNKNOWN, -1, false, false });
    format->type = loader.type;
    format->reads = readsStandard(loader.type);
    for (const std::string& extension : extensions)
        if (!contains(format->extensions, extension))
            format->extensions.push_back(extension);
}

template <typename Matches>
const FormatSupport* findIf(const std::vector<FormatSupport>& formats, Matches matches)
{
    const auto found = std::find_if(formats.begin(), formats.end(), matches);
    return found == formats.end() ? nullptr : &*found;
}

} // namespace

std::vector<FormatSupport> listFormats()
{
    std::vector<FormatSupport> formats = offeredFormats();
    for (const ImageLoader& loader : tableImageLoaders)
        addReader(formats, loader);
    return formats;
}

const FormatSupport* findFormat(const std::vector<FormatSupport>& formats, const char* fileName)
{
    const std::string extension = toLower(std::filesystem::path(fileName).extension().string());
    if (extension.size() < 2)
        return nullptr;
    return findIf(formats,
        [&](const FormatSupport& format) { return contains(format.extensions, extension.substr(1)); });
}

const FormatSupport* findFormat(const std::vector<FormatSupport>& formats, ImgType type)
{
    if (type == IMGTYPE_UNKNOWN)
        return nullptr;
    return findIf(formats, [&](const FormatSupport& format) { return format.type == type; });
}

} // namespace QUtils
