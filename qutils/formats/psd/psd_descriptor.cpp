#include "qutils/formats/psd/psd_descriptor.h"

#include "qutils/formats/psd/psd_document.h"

#include <algorithm>

namespace QUtils {

namespace {

constexpr int deepestNesting = 16;
constexpr std::size_t mostValues = 4096;
constexpr std::size_t longestKey = 64; // Far more than any that is asked for.

std::uint64_t bytesTo(const PsdSource& source, std::uint64_t end)
{
    return end > source.position() ? end - source.position() : 0;
}

/// Passes over `length` bytes; false when there are fewer.
bool skip(PsdSource& source, std::uint64_t end, std::uint64_t length)
{
    if (length > bytesTo(source, end))
        return false;
    source.skip(length);
    return true;
}

bool skipText(PsdSource& source, std::uint64_t end)
{
    return bytesTo(source, end) >= 4 && skip(source, end, std::uint64_t(source.u32()) * 2);
}

/// A key of four characters, or a longer one with its length in front. One that is too long to be any that is
/// known is empty: all values of a list would keep it.
bool readKey(PsdSource& source, std::uint64_t end, std::string& key)
{
    if (bytesTo(source, end) < 4)
        return false;
    const std::uint32_t given = source.u32();
    const std::uint64_t length = given == 0 ? 4 : given;
    if (length > bytesTo(source, end))
        return false;
    key.clear();
    if (length > longestKey)
        return skip(source, end, length);
    const std::uint8_t* const bytes = source.take(std::size_t(length));
    if (!bytes)
        return false;
    key.assign(bytes, bytes + length);
    return true;
}

/// The type and the value, both by their names.
bool skipEnumeration(PsdSource& source, std::uint64_t end)
{
    std::string name;
    const bool hasType = readKey(source, end, name);
    return hasType && readKey(source, end, name);
}

/// How many bytes a value has that is passed over, or is a plain number.
std::uint64_t plainBytes(std::uint32_t type)
{
    switch (type) {
    case psdKey("bool"): return 1;
    case psdKey("long"): return 4;
    case psdKey("doub"):
    case psdKey("comp"): return 8;
    case psdKey("UntF"): return 12;
    default: return 0;
    }
}

double readPlain(PsdSource& source, std::uint32_t type)
{
    switch (type) {
    case psdKey("bool"): return source.u8();
    case psdKey("long"): return source.i32();
    case psdKey("comp"): return double(std::int64_t(source.u64()));
    case psdKey("UntF"): source.skip(4); return source.f64(); // Its unit stands in front.
    default: return source.f64();
    }
}

} // namespace

void PsdDescriptor::note(const std::string& key, double value)
{
    if (!key.empty() && m_values.size() < mostValues)
        m_values.emplace_back(key, value);
}

bool PsdDescriptor::readList(PsdSource& source, std::uint64_t end, const std::string& key, int depth)
{
    if (bytesTo(source, end) < 4)
        return false;
    for (std::uint32_t count = source.u32(); count != 0; --count)
        if (!readItem(source, end, key, depth + 1))
            return false;
    return true;
}

/// A value with its type in front.
bool PsdDescriptor::readItem(PsdSource& source, std::uint64_t end, const std::string& key, int depth)
{
    if (depth > deepestNesting || bytesTo(source, end) < 4)
        return false;
    const std::uint32_t type = source.u32();
    if (const std::uint64_t bytes = plainBytes(type)) {
        if (bytes > bytesTo(source, end))
            return false;
        note(key, readPlain(source, type));
        return true;
    }
    std::string ignored;
    switch (type) {
    case psdKey("Objc"):
    case psdKey("GlbO"): return readObject(source, end, depth + 1);
    case psdKey("VlLs"): return readList(source, end, key, depth);
    case psdKey("enum"): return skipEnumeration(source, end);
    case psdKey("TEXT"): return skipText(source, end);
    case psdKey("type"):
    case psdKey("GlbC"): return skipText(source, end) && readKey(source, end, ignored);
    case psdKey("alis"):
    case psdKey("tdta"): return bytesTo(source, end) >= 4 && skip(source, end, source.u32());
    default: return false;
    }
}

bool PsdDescriptor::readObject(PsdSource& source, std::uint64_t end, int depth)
{
    std::string key;
    if (!skipText(source, end) || !readKey(source, end, key) || bytesTo(source, end) < 4)
        return false;
    for (std::uint32_t count = source.u32(); count != 0; --count)
        if (!readKey(source, end, key) || !readItem(source, end, key, depth))
            return false;
    return true;
}

bool PsdDescriptor::read(PsdSource& source, std::uint64_t end)
{
    return skip(source, end, 4) && readObject(source, end, 0);
}

bool PsdDescriptor::find(const std::string& key, double& value) const
{
    const auto found = std::find_if(
        m_values.begin(), m_values.end(), [&](const auto& known) { return known.first == key; });
    if (found != m_values.end())
        value = found->second;
    return found != m_values.end();
}

bool PsdDescriptor::hasTrue(const std::string& key) const
{
    return std::any_of(m_values.begin(), m_values.end(),
        [&](const auto& known) { return known.first == key && known.second != 0; });
}

} // namespace QUtils
