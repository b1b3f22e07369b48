#pragma once

#include "bench/frame.h"
#include "bench/rows.h"
#include "rastkit/types.h"

#include <cstddef>
#include <functional>
#include <string>

namespace bench {

// The rows that every format has: one frame saved and loaded, each beside its floor. A format's file lists
// its variants and calls these.

/// One way to store the frame.
struct Codec {
    std::string name; ///< Format and variant: "tga/raw24". Also names its files.
    std::string extension; ///< With the dot.
    bool hasAlpha = false; ///< Without, pixels come back opaque.
    bool isFloat = false; ///< Loads float pixels, four floats each, instead of packed ones.
    bool isHalf = false; ///< Float pixels that are stored as 16-bit floats.
    bool isClamped = false; ///< Float pixels that are stored as whole numbers: none is above 1.
    /// 0: what is loaded is the frame, bit by bit. Else the mean difference that a loaded sample may have,
    /// where 1 is white; for variants that lose something.
    double tolerance = 0;
    std::function<ImgError(const char* path)> save;
    std::function<ImgError(const char* path, ImgBuffer& sink)> load;

    std::size_t pixelBytes() const { return isFloat ? floatBytes : packedBytes; } ///< Of the frame.
};

/// "<name>/read": into one `Image8` or `ImageF` that keeps its memory, beside "<name>/read/floor" or the row
/// that is named.
void addReadRows(const Codec& codec, Goal goal, const std::string& beside = {});
/// "<name>/write": to a new file, read back once to verify it; beside "<name>/write/floor" or the row that is
/// named.
void addWriteRows(const Codec& codec, Goal goal, const std::string& beside = {});
/// "<name>/read/pixels", of packed pixels: into a sink that takes single pixels only, beside a reader of the
/// caller's own,
/// "<name>/read/naive", which reads a pixel at a time from the stream.
void addPixelSinkRows(
    const Codec& codec, Goal goal, const std::function<bool(const char* path, ImgBuffer& sink)>& naiveReader);
/// OpenImageIO, on one thread, with the same files and the same pixels: "<name>/read/openimageio" and
/// "<name>/write/openimageio". `compression` is its name for what the variant does. Nothing is added where
/// the benchmark was built without it.
void addOpenImageIoRows(const Codec& codec, const std::string& compression);
/// Only the first of the two.
void addOpenImageIoReadRow(const Codec& codec);
/// Only the second.
void addOpenImageIoWriteRow(const Codec& codec, const std::string& compression);

/// The file of a variant that is read: saved at the first call. Says what went wrong, or nothing.
std::string makeInput(const Codec& codec);
std::string inputPath(const Codec& codec);
/// Where rows write to. Different rows have different names.
std::string outputPath(const Codec& codec, const std::string& row);

/// Whether the pixels, one after the other, are those of the frame as the variant keeps them. False for null.
bool isFrame(const Codec& codec, const unsigned int* argb);
bool isFrame(const Codec& codec, const float* rgba);
/// The same of a file that any of the rows has saved.
bool holdsFrame(const Codec& codec, const std::string& path);

} // namespace bench
