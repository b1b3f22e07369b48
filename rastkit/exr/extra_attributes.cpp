#include "rastkit/exr/extra_attributes.h"

#include <ImathBox.h>
#include <ImathMatrix.h>
#include <ImfBoxAttribute.h>
#include <ImfChannelList.h>
#include <ImfFloatAttribute.h>
#include <ImfHeader.h>
#include <ImfIntAttribute.h>
#include <ImfMatrixAttribute.h>
#include <ImfStringAttribute.h>
#include <ImfVecAttribute.h>

#include <algorithm>
#include <climits>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <locale.h>
#include <memory>
#include <new>
#include <string>
#include <type_traits>

namespace QUtils {

namespace {

// --- Header ----------------------------------------------------------------------------------------------

constexpr std::size_t mostNameBytes = 255; // OpenEXR cuts longer names without a word.

/// What describes the pixels: any other value would make another file of it, or none that can be read.
constexpr const char* structuralNames[] = {
    "channels",
    "chunkCount",
    "compression",
    "dataWindow",
    "lineOrder",
    "name",
    "tiles",
    "type",
    "version",
};

/// Why no attribute may have that name; null when it may.
const char* refusalOf(const char* name)
{
    if (std::strlen(name) > mostNameBytes)
        return "its name is too long";
    const auto isName = [name](const char* structural) { return std::strcmp(name, structural) == 0; };
    if (std::any_of(std::begin(structuralNames), std::end(structuralNames), isName))
        return "the file itself says what it is";
    return nullptr;
}

void reportLeftOut(const char* name, const char* reason)
{
    std::fprintf(stderr, "attribute \"%s\" is left out: %s\n", name, reason);
}

/// OpenEXR's own check, which throws. A header without channels, as most are at first, is checked as if it
/// had one.
void check(Imf::Header& header)
{
    Imf::ChannelList& channels = header.channels();
    if (channels.begin() != channels.end())
        return header.sanityCheck();
    channels.insert("R", Imf::Channel());
    try {
        header.sanityCheck();
    } catch (...) {
        channels = Imf::ChannelList();
        throw;
    }
    channels = Imf::ChannelList();
}

bool isSound(Imf::Header& header)
{
    try {
        check(header);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

/// Inserts an attribute, and takes it back when the header does not pass the check with it.
void insertChecked(Imf::Header& header, const char* name, const Imf::Attribute& attribute)
{
    const Imf::Header::Iterator found = header.find(name);
    const std::unique_ptr<Imf::Attribute> old(found == header.end() ? nullptr : found.attribute().copy());
    header.insert(name, attribute);
    try {
        check(header);
    } catch (...) {
        if (old)
            header.insert(name, *old);
        else
            header.erase(name);
        throw;
    }
}

template <typename Number> Imath::Matrix33<Number> matrix33(const Number* v)
{
    return { v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7], v[8] };
}

template <typename Number> Imath::Matrix44<Number> matrix44(const Number* v)
{
    return { v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7], v[8], v[9], v[10], v[11], v[12], v[13], v[14],
        v[15] };
}

/// Hands `insert` the attribute value that so many numbers make. `Matrix` is the number type of matrices.
template <typename Matrix, typename Number, typename Insert>
void makeVec(int count, const Number* v, Insert insert)
{
    using Vec2 = Imath::Vec2<Number>;
    Matrix elements[16] = {};
    if (count == 9 || count == 16)
        std::copy_n(v, count, elements);
    switch (count) {
    case 1: return insert(v[0]);
    case 2: return insert(Vec2(v[0], v[1]));
    case 3: return insert(Imath::Vec3<Number>(v[0], v[1], v[2]));
    case 4: return insert(Imath::Box<Vec2>(Vec2(v[0], v[1]), Vec2(v[2], v[3])));
    case 9: return insert(matrix33(elements));
    case 16: return insert(matrix44(elements));
    default: return;
    }
}

} // namespace

template <typename Value> void ExrHeaderWrapper::insert(const char* name, const Value& value)
{
    if (const char* const refusal = refusalOf(name))
        return reportLeftOut(name, refusal);
    try {
        const Imf::TypedAttribute<Value> attribute(value);
        if (m_wasSound)
            insertChecked(m_header, name, attribute);
        else
            m_header.insert(name, attribute);
    } catch (const std::exception& exception) {
        reportLeftOut(name, exception.what());
    }
}

ExrHeaderWrapper::ExrHeaderWrapper(Imf::Header& header) : m_header(header), m_wasSound(isSound(header)) { }

void ExrHeaderWrapper::add(const char* name, int value)
{
    insert(name, value);
}

void ExrHeaderWrapper::add(const char* name, float value)
{
    insert(name, value);
}

void ExrHeaderWrapper::add(const char* name, const char* value)
{
    try {
        insert(name, std::string(value));
    } catch (const std::exception& exception) { // No memory for the copy.
        reportLeftOut(name, exception.what());
    }
}

void ExrHeaderWrapper::addvec(const char* name, int count, const int* values)
{
    makeVec<double>(count, values, [&](const auto& value) { insert(name, value); });
}

void ExrHeaderWrapper::addvec(const char* name, int count, const float* values)
{
    makeVec<float>(count, values, [&](const auto& value) { insert(name, value); });
}

namespace {

// --- Numbers ---------------------------------------------------------------------------------------------

constexpr char space[] = "\t \n\r";
constexpr char numberStart[] = "-+0123456789", digits[] = "0123456789", floatParts[] = "-+0123456789.e";

/// "-" alone passes, and reads as 0; so do the odd numbers that the characters of a float allow.
bool isNumber(const char* token, const char* parts)
{
    return token && *token != '\0' && std::strchr(numberStart, *token)
        && token[1 + std::strspn(token + 1, parts)] == '\0';
}

bool isInteger(const char* token)
{
    return isNumber(token, digits);
}

bool isFloat(const char* token)
{
    return isNumber(token, floatParts);
}

int toInteger(const char* token)
{
    return int(std::clamp(std::strtol(token, nullptr, 10), long(INT_MIN), long(INT_MAX)));
}

float toFloat(const char* token)
{
    return float(std::strtod(token, nullptr)); // Infinite where it is too large.
}

/// The decimal point of the present thread is "." while it lives. Other threads keep theirs, which
/// setlocale would change.
class NumericLocale {
public:
    NumericLocale() : m_old(uselocale(plain())) { }
    NumericLocale(const NumericLocale&) = delete;
    NumericLocale& operator=(const NumericLocale&) = delete;
    ~NumericLocale() { uselocale(m_old); }

private:
    /// Made once: it takes no memory then, and a copy of the thread's own with another point would leak in
    /// glibc where LOCPATH is set.
    static locale_t plain()
    {
        static const locale_t locale = newlocale(LC_ALL_MASK, "C", locale_t(nullptr));
        return locale;
    }

    locale_t m_old;
};

// --- Values ----------------------------------------------------------------------------------------------

constexpr int mostElements = 16;

bool isListSize(std::ptrdiff_t count)
{
    return (count >= 1 && count <= 4) || count == 9 || count == mostElements;
}

char* skipSpace(char* text)
{
    return text + std::strspn(text, space);
}

/// The end of [begin, end) without the white space at its end.
char* trimEnd(const char* begin, char* end)
{
    while (end != begin && std::strchr(space, end[-1]))
        --end;
    return end;
}

/// Cuts "1, 2, 3" into its elements, without the white space around them.
void split(char* list, char** elements)
{
    for (bool isLast = false; !isLast; ++elements) {
        char* const begin = skipSpace(list);
        char* const end = begin + std::strcspn(begin, ",");
        isLast = *end == '\0';
        list = end + 1;
        *trimEnd(begin, end) = '\0';
        *elements = begin;
    }
}

/// Adds "(1, 2, 3)" as a vector, box or matrix. False when it is none of them, or when memory is refused.
template <typename Header> bool addList(Header& header, const char* name, const char* value)
{
    const char* const first = value + 1;
    const char* const close = std::strchr(first, ')');
    if (!close || close[1] != '\0')
        return false;
    const auto count = 1 + std::count(first, close, ',');
    if (!isListSize(count))
        return false;

    const std::size_t bytes = std::size_t(close - first);
    const std::unique_ptr<char[]> list(new (std::nothrow) char[bytes + 1]);
    if (!list)
        return false;
    std::memcpy(list.get(), first, bytes);
    list[bytes] = '\0';
    char* elements[mostElements] = {};
    split(list.get(), elements);
    // Matrices are those of floats, also of whole numbers: readers expect them so.
    if (count <= 4 && std::all_of(elements, elements + count, isInteger))
        return writeVec<int>(int(count), header, name, elements);
    return writeVec<float>(int(count), header, name, elements);
}

/// The string without its quotes; a quote that is not closed belongs to it.
template <typename Header> void addQuoted(Header& header, const char* name, char* value)
{
    const std::size_t length = std::strlen(value);
    if (length < 2 || value[length - 1] != value[0])
        return header.add(name, value);
    value[length - 1] = '\0';
    header.add(name, value + 1);
}

template <typename Header> void addValue(Header& header, const char* name, char* value)
{
    if (isInteger(value))
        header.add(name, toInteger(value));
    else if (isFloat(value))
        header.add(name, toFloat(value));
    else if (*value == '\'' || *value == '"')
        addQuoted(header, name, value);
    else if (*value != '(' || !addList(header, name, value))
        header.add(name, static_cast<const char*>(value));
}

// --- Pairs -----------------------------------------------------------------------------------------------

/// An error at `position`, counted from the beginning of the text.
class ParseErrors {
public:
    explicit ParseErrors(const char* text) : m_text(text) { }

    ErrorCode nameExpected(const char* at) const
    {
        return { function, -1, "attribute name expected at position %d", position(at) };
    }
    ErrorCode valueExpected(const char* at) const
    {
        return { function, -2, "attribute value expected at position %d", position(at) };
    }
    /// Of the character at `at`, which may be the end.
    ErrorCode unexpected(const char* at) const
    {
        if (*at == '\0')
            return { function, -3, "Unexpected end of stream at position %d", position(at) };
        return { function, -4, "Unexpected token '%c' at position %d", *at, position(at) };
    }

private:
    static constexpr char function[] = "WriteEXRExtraAttributes";

    int position(const char* at) const { return int(at - m_text); }

    const char* m_text;
};

template <typename Header> ErrorCode addPairs(Header& header, char* text)
{
    const ParseErrors errors(text);
    for (char* name = text;;) {
        char* const equals = name + std::strcspn(name, "=;");
        if (*equals != '=')
            return errors.unexpected(equals);
        char* const nameEnd = trimEnd(name, equals);
        if (nameEnd == name)
            return errors.nameExpected(name);

        char* const value = skipSpace(equals + 1);
        char* const end = value + std::strcspn(value, "=;");
        if (*end == '=')
            return errors.unexpected(end);
        char* const valueEnd = trimEnd(value, end);
        if (valueEnd == value)
            return errors.valueExpected(value);

        const bool isLast = *end == '\0';
        *nameEnd = *valueEnd = '\0';
        addValue(header, name, value);
        if (isLast)
            return {};
        name = end + 1 + std::strspn(end + 1, "\t \n\r;");
        if (*name == '\0')
            return {};
    }
}

constexpr int messageBytes = 512;

} // namespace

// --- Public functions ------------------------------------------------------------------------------------

template <typename Number> bool writeVec(int count, ExrHeaderWrapper& header, const char* name, char** tokens)
{
    constexpr bool isWhole = std::is_same_v<Number, int>;
    if (!std::all_of(tokens, tokens + std::max(count, 0), isWhole ? isInteger : isFloat))
        return false;
    Number values[mostElements] = {};
    if (count >= 1 && count <= mostElements)
        std::transform(tokens, tokens + count, values, [](const char* token) {
            if constexpr (isWhole)
                return toInteger(token);
            else
                return toFloat(token);
        });
    header.addvec(name, count, values);
    return true;
}

template bool writeVec<int>(int, ExrHeaderWrapper&, const char*, char**);
template bool writeVec<float>(int, ExrHeaderWrapper&, const char*, char**);

template <typename Header> ErrorCode AttrParser<Header>::WriteEXRExtraAttributes(Header& header, char* text)
{
    ErrorCode error;
    {
        const NumericLocale locale;
        error = addPairs(header, skipSpace(text));
    }
    if (error.code() != 0) {
        char message[messageBytes];
        error.getErrorString(message, messageBytes);
        std::fprintf(stderr, "%s\n", message);
    }
    return error;
}

template class AttrParser<ExrHeaderWrapper>;

} // namespace QUtils
