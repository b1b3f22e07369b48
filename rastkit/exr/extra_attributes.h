#pragma once

#include "qutils/core/error_code.h"
#include "rastkit/export.h"

// For programs that have OpenEXR's headers: without them nobody has an Imf::Header either.
#if __has_include(<OpenEXR/ImfForward.h>)

#include <OpenEXR/ImfForward.h>

namespace QUtils {

/// Adds attributes to the header of an OpenEXR file that is going to be written.
///
/// An attribute never fails the write: what cannot be added is told on standard error and left out. That is a
/// name of more than 255 bytes, or of what the file's own structure says (dataWindow, channels, compression,
/// lineOrder, tiles, type, version, name, chunkCount); a name that exists with another type; a value that
/// OpenEXR would not write. Other attributes replace those of the same name and type.
class RASTKIT_API ExrHeaderWrapper {
public:
    /// Refers to `header`, which must live longer.
    explicit ExrHeaderWrapper(Imf::Header& header);

    void add(const char* name, int value);
    void add(const char* name, float value);
    void add(const char* name, const char* value);
    /// From integers: 1 int, 2 V2i, 3 V3i, 4 Box2i (min x, min y, max x, max y), 9 M33d, 16 M44d (row by
    /// row). Other counts add nothing.
    void addvec(const char* name, int count, const int* values);
    /// From floats: 1 float, 2 V2f, 3 V3f, 4 Box2f, 9 M33f, 16 M44f. Other counts add nothing.
    void addvec(const char* name, int count, const float* values);

private:
    template <typename Value> void insert(const char* name, const Value& value);

    Imf::Header& m_header;
    bool m_wasSound;
};

/// Turns a line of text into attributes: "name = value; name = value; …".
///
/// A value is a whole number (int), a number (float), a list of 1, 2, 3, 4, 9 or 16 numbers in parentheses
/// (see `ExrHeaderWrapper::addvec`; 9 and 16 are always floats), or a string, which may stand in quotes. What
/// does not read as a number or a list is a string. Values contain neither "=" nor ";".
template <typename Header> class RASTKIT_API AttrParser {
public:
    /// Parses `text`, which is changed. An error ends the parse, is written to standard error, and is
    /// returned; attributes before it stay. The decimal point is "." whatever the locale.
    /// Errors, with positions counted from the first character that is no white space: -1 name expected,
    /// -2 value expected, -3 unexpected end, -4 unexpected "=" or ";".
    static ErrorCode WriteEXRExtraAttributes(Header& header, char* text);
};

extern template class AttrParser<ExrHeaderWrapper>;

inline ErrorCode WriteEXRExtraAttributes(ExrHeaderWrapper& header, char* text)
{
    return AttrParser<ExrHeaderWrapper>::WriteEXRExtraAttributes(header, text);
}

/// Adds `count` numbers, given as texts, as one attribute by `addvec`. False, with nothing added, when one of
/// them is empty or has a character that such numbers do not have. Whole numbers past the range of an int
/// become its nearest end. `Number`: int or float.
template <typename Number>
RASTKIT_API bool writeVec(int count, ExrHeaderWrapper& header, const char* name, char** tokens);

extern template bool writeVec<int>(int count, ExrHeaderWrapper& header, const char* name, char** tokens);
extern template bool writeVec<float>(int count, ExrHeaderWrapper& header, const char* name, char** tokens);

} // namespace QUtils

using QUtils::AttrParser;
using QUtils::ExrHeaderWrapper;
using QUtils::WriteEXRExtraAttributes;
using QUtils::writeVec;

#endif
