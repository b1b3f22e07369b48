// Files without an extension that tells their type: detection by contents, and the dispatchers behind it.

#include "fuzz_support.h"
#include "rastkit/formats.h"
#include "rastkit/load.h"

using namespace fuzz_support;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const InputFile file(data, size);
    const int type = DetectImageType(file.name());
    require(type >= IMGTYPE_UNKNOWN && type <= IMGTYPE_DDS, "a type that does not exist");
    require(type == DetectImageType(file.name()), "another type on another day");

    IMGINFO info {};
    const int headerCode = LoadImageHeader(file.name(), &info).code();
    SmallSink sink;
    const int code = LoadImageFile(file.name(), sink, nullptr).code();
    // To renderers a broken TIFF file is one that cannot be opened.
    require(type == IMGTYPE_TIFF || (code != IMGERR_OPEN && headerCode != IMGERR_OPEN),
        "a file that exists was not found");
    if (type == IMGTYPE_UNKNOWN)
        require(code == IMGERR_FORMAT && headerCode == IMGERR_FORMAT, "a file of no type was read");
    return 0;
}
