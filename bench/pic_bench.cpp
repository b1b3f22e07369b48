#include "bench/codec_rows.h"
#include "rastkit/codecs/pic.h"
#include "rastkit/load.h"

namespace bench {

namespace {

/// The writer of the tool, whose files have all their colours in their places.
Codec codecOf(const char* name, bool alpha)
{
    using QUtils::Conventions;
    Codec codec;
    codec.name = name;
    codec.extension = ".pic";
    codec.hasAlpha = alpha;
    codec.save = [alpha](const char* path) {
        return QUtils::savePic(
            path, frameBuffer(), colorChannel, alpha ? colorChannel : -1, 0, Conventions::Standard);
    };
    codec.load = [](const char* path, ImgBuffer& sink) {
        return QUtils::loadPic(path, sink, nullptr, Conventions::Standard);
    };
    return codec;
}

} // namespace

void addPicRows()
{
    const Goal fastPackets { Goal::Kind::Megabytes, 800 };
    for (const Codec& codec : { codecOf("pic/rgb", false), codecOf("pic/rgba", true) }) {
        addReadRows(codec, fastPackets);
        addWriteRows(codec, Goal());
        addOpenImageIoReadRow(codec);
    }
}

} // namespace bench
