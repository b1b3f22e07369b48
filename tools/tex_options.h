#pragma once

#include "rastkit/image/source_pixels.h"
#include "rastkit/texture_writer.h"

#include <CLI/CLI.hpp>

#include <string>

namespace tool {

/// The options of `rastkit tex` as they were typed; empty ones were not.
struct TexOptions {
    std::string in, out, tile = "64", filter = "box", wrap = "clamp", colour, alpha = "auto", sample,
                         compression;
    float dwaLevel = 45;
    int threads = 0;
    bool toLinear = false, update = false, json = false, sync = false;

    void declare(CLI::App& command);
    /// What is wrong with them, whatever the source; empty when nothing is.
    std::string check() const;
    /// Settings for a source of such pixels, without threads and comment. They are checked.
    QUtils::TextureSettings resolve(const QUtils::SourcePixels& source) const;

private:
    std::string read(const QUtils::SourcePixels& source, QUtils::TextureSettings& settings) const;
};

/// What a texture of that name becomes: "exr", "tiff" or, for other extensions, "".
const char* textureFormatOf(const std::string& name);

/// All that decides what is in a file of that format, as the text that is written into it in front of the
/// source's hash.
std::string describeSettings(const QUtils::TextureSettings& settings, const char* format);

/// As it is typed: "half", "float", "8", "16".
const char* nameOf(QUtils::TextureSample sample);

} // namespace tool
