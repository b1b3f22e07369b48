#include "qutils/core/paths.h"

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <string_view>
#include <sys/stat.h>

namespace QUtils {

namespace {

std::string_view viewOf(const char* text) noexcept
{
    return text ? std::string_view(text) : std::string_view();
}

/// Writes pieces of text one after the other to a caller's buffer and cuts what does not fit.
class BoundedText {
public:
    BoundedText(char* out, int outSize) noexcept
        : m_pos(out), m_room(out && outSize > 0 ? static_cast<std::size_t>(outSize) - 1 : 0),
          m_terminate(out && outSize > 0)
    {
    }
    BoundedText(const BoundedText&) = delete;
    BoundedText& operator=(const BoundedText&) = delete;
    ~BoundedText()
    {
        if (m_terminate)
            *m_pos = '\0';
    }

    BoundedText& add(std::string_view text) noexcept
    {
        const std::size_t count = take(text.size());
        if (count != 0)
            std::memmove(m_pos - count, text.data(), count); // A text may be cut in its own buffer.
        return *this;
    }
    BoundedText& add(std::size_t count, char character) noexcept
    {
        count = take(count);
        if (count != 0)
            std::memset(m_pos - count, character, count);
        return *this;
    }

private:
    /// Moves on by `wanted` characters, or by as many as there is room for.
    std::size_t take(std::size_t wanted) noexcept
    {
        const std::size_t count = wanted < m_room ? wanted : m_room;
        m_pos += count;
        m_room -= count;
        return count;
    }

    char* m_pos;
    std::size_t m_room;
    bool m_terminate;
};

/// Where the base name begins. Names may come from a scene made elsewhere, so both separators count.
std::size_t baseBegin(std::string_view name) noexcept
{
    const std::size_t separator = name.find_last_of("/\\");
    return separator == name.npos ? 0 : separator + 1;
}

/// Where the last extension of the base name begins; the end when there is none.
std::size_t extensionBegin(std::string_view name) noexcept
{
    const std::size_t dot = name.rfind('.');
    return dot == name.npos || dot <= baseBegin(name) ? name.size() : dot;
}

void addNumber(BoundedText& out, int number, std::size_t digits) noexcept
{
    char reversed[16];
    std::size_t count = 0;
    // The magnitude as unsigned: the smallest int has no positive twin.
    unsigned rest = number < 0 ? 0u - static_cast<unsigned>(number) : static_cast<unsigned>(number);
    do {
        reversed[sizeof reversed - ++count] = static_cast<char>('0' + rest % 10);
        rest /= 10;
    } while (rest != 0);
    if (number < 0)
        out.add("-");
    out.add(digits > count ? digits - count : 0, '0');
    out.add(std::string_view(reversed + sizeof reversed - count, count));
}

/// Puts the number in the place of the last run of `#` in the base name. False when there is none.
bool replaceLastHashes(std::string_view name, int frame, BoundedText& out) noexcept
{
    const std::size_t last = name.rfind('#');
    if (last == name.npos || last < baseBegin(name))
        return false;
    const std::size_t before = name.find_last_not_of('#', last);
    const std::size_t begin = before == name.npos ? 0 : before + 1;
    out.add(name.substr(0, begin));
    addNumber(out, frame, last + 1 - begin);
    out.add(name.substr(last + 1));
    return true;
}

bool isFolder(const char* path) noexcept
{
    struct stat status;
    return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

/// True when the folder exists afterwards. An existing one counts whatever mkdir says: it answers a
/// folder on a read-only or automounted disk with other codes than EEXIST.
bool makeOneFolder(const char* path) noexcept
{
    if (mkdir(path, 0777) == 0)
        return true;
    const int reason = errno;
    if (isFolder(path))
        return true;
    errno = reason;
    return false;
}

char validCharacter(char character) noexcept
{
    const unsigned char byte = static_cast<unsigned char>(character);
    const bool invalid = byte < 0x20 || byte == 0x7F || std::strchr("/\\:*?\"<>|", character);
    return invalid ? '_' : character;
}

void copyValidName(std::string_view name, char* out) noexcept
{
    for (const char character : name)
        *out++ = validCharacter(character);
    *out = '\0';
}

} // namespace

std::FILE* qutils_fopen(const char* name, const char* mode) noexcept
{
    // 'e', close on exec, stands second: the C library looks at the first few characters only.
    char modeText[32];
    const std::size_t length = mode ? std::strlen(mode) : 0;
    if (!name || length == 0 || length + 2 > sizeof modeText) {
        errno = EINVAL;
        return nullptr;
    }
    modeText[0] = mode[0];
    modeText[1] = 'e';
    std::memcpy(modeText + 2, mode + 1, length);
    return std::fopen(name, modeText);
}

bool uniPathOrFileExists(const char* path) noexcept
{
    struct stat status;
    return path && stat(path, &status) == 0;
}

bool uniMakeDir(const char* path) noexcept
{
    // The system takes no longer path, so the copy needs no memory.
    char parent[PATH_MAX];
    const std::size_t length = path ? std::strlen(path) : 0;
    if (length == 0 || length >= sizeof parent) {
        errno = length == 0 ? ENOENT : ENAMETOOLONG;
        return false;
    }
    if (isFolder(path))
        return true;

    std::memcpy(parent, path, length + 1);
    for (std::size_t i = 1; i < length; ++i) {
        if (path[i] != '/')
            continue;
        parent[i] = '\0';
        if (!makeOneFolder(parent))
            return false;
        parent[i] = '/';
    }
    return makeOneFolder(path);
}

void makeValidName(const char* name, char* out) noexcept
{
    if (out)
        copyValidName(viewOf(name), out);
}

void makeValidName(const char* name, char* out, int outSize) noexcept
{
    if (out && outSize > 0)
        copyValidName(viewOf(name).substr(0, static_cast<std::size_t>(outSize) - 1), out);
}

void appendFileName(const char* fileName, const char* text, char* out, int outSize, bool) noexcept
{
    const std::string_view name = viewOf(fileName);
    const std::size_t extension = extensionBegin(name);
    BoundedText(out, outSize).add(name.substr(0, extension)).add(viewOf(text)).add(name.substr(extension));
}

void appendFrameNumber(
    const char* name, int digits, int frame, char* out, int outSize, bool replaceHashes) noexcept
{
    const std::string_view text = viewOf(name);
    BoundedText result(out, outSize);
    if (replaceHashes && replaceLastHashes(text, frame, result))
        return;

    const std::string_view stem = text.substr(0, extensionBegin(text));
    const bool hasDivider = !stem.empty() && std::strchr("._-", stem.back());
    result.add(stem).add(hasDivider ? "" : ".");
    addNumber(result, frame, digits > 0 ? static_cast<std::size_t>(digits) : 0);
    result.add(text.substr(stem.size()));
}

void copyBounded(const char* text, char* out, int outSize) noexcept
{
    BoundedText(out, outSize).add(viewOf(text));
}

int matchIntToString(int value, const char* text) noexcept
{
    char bytes[4];
    static_assert(sizeof bytes == sizeof value);
    std::memcpy(bytes, &value, sizeof bytes);
    // Stops at the first difference, so that a shorter text is not read past its terminator.
    for (std::size_t i = 0; i < sizeof bytes; ++i) {
        if (!text || bytes[i] != text[i] || (text[i] == '\0' && i + 1 < sizeof bytes))
            return 1;
    }
    return 0;
}

} // namespace QUtils
