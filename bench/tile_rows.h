#pragma once

#include "bench/rows.h"
#include "bench/texture_files.h"

#include <cstdint>
#include <string>

namespace bench {

/// Bytes of the pixels of all tiles, as floats R, G, B, A: what all rows of tiles count.
std::uint64_t allTilesBytes();

/// A row "<texture>/<name>" beside "<texture>/<beside>", without a run. All of them go through all tiles of
/// all levels in one random order, once in each repetition.
Row tileRow(TextureFile& texture, const std::string& name, const std::string& beside, Goal goal);

/// OpenImageIO's single tiles, "load/openimageio" as the file has them and "load/openimageio-floats", and its
/// ImageCache. Nothing is added where the benchmark was built without it.
void addOpenImageIoTileRows(TextureFile& texture);

} // namespace bench
