// Renders a frame bucket by bucket into a quimg. However it is ended, a second call goes on with what is
// missing, and the file ends up the same as without the interruption.

#include "frame_channels.h"

#include "rastkit/rastkit.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

namespace {

struct Options {
    std::string file;
    int width = 960, height = 540, bucket = 64, stopAfter = 0;
};

void check(const ErrorCode& error)
{
    if (error.code() != 0)
        throw std::runtime_error(std::string(error.function()) + ": " + error.message());
}

/// Everything that a file must know before its first bucket.
void writeHeaders(RIFile& file, const Options& options, example::ChannelList& channels)
{
    check(file.WriteHeader(16)); // Colours as half floats; data keeps its own precision.
    check(file.WTResolution(options.width, options.height, 1));
    check(file.WTRenderRegion({})); // The whole image.
    check(file.WTRegionsInfo(options.bucket, options.bucket, 0));
    check(file.WTChannelInfo(channels.table()));
    char description[] = "spheres on a chequered floor";
    RISceneInfo scene { 1, description };
    check(file.WTSceneInfo(scene));
}

bool isSameFrame(const RIFile& file, const Options& options, example::ChannelList& channels)
{
    const QUtils::RIHeader& header = file.header();
    bool isSame = header.width == options.width && header.height == options.height
        && header.regWidth == options.bucket && file.getNumChannels() == example::ChannelList::Count;
    for (int i = 0; isSame && i < file.getNumChannels(); ++i)
        isSame = std::strcmp(file.getChannel(i).name.c_str(), channels[i].getName()) == 0;
    return isSame;
}

/// Goes on with a file that is there, as long as it is of this frame, else begins a new one. A file that
/// cannot be gone on with is left alone: it may be somebody's, or in use.
void openFile(RIFile& file, const Options& options, example::ChannelList& channels)
{
    std::error_code none;
    if (std::filesystem::file_size(options.file, none) == 0 || none) { // Not there, or ended before it began.
        check(file.Create(options.file.c_str(), nullptr));
        writeHeaders(file, options, channels);
        return;
    }
    check(file.Open(options.file.c_str()));
    if (!isSameFrame(file, options, channels))
        throw std::runtime_error(options.file + " holds another frame");
    std::printf("%s: %d of %d buckets are there\n", options.file.c_str(),
        file.getNumRegions() - file.countMissingRegions(), file.getNumRegions());
}

/// True when all of the frame is there.
bool renderBuckets(RIFile& file, const Options& options, example::ChannelList& channels)
{
    int rendered = 0;
    for (int i = 0; i < file.getNumRegions(); ++i) {
        if (file.isRegionDone(i))
            continue;
        if (options.stopAfter > 0 && rendered == options.stopAfter)
            return false;
        example::Bucket bucket(channels, file.getRegion(i), options.width, options.height);
        check(file.WTRegion(&bucket, -1, 0, 0)); // From here on nothing can take it away again.
        ++rendered;
    }
    std::printf("%s: %d buckets rendered\n", options.file.c_str(), rendered);
    return true;
}

} // namespace

int main(int argc, char** argv)
try {
    Options options;
    CLI::App parser("Renders a frame bucket by bucket into a quimg, or what is missing of it.");
    parser.add_option("FILE", options.file, "The file, with the extension quimg")->required();
    parser.add_option("--width", options.width)->check(CLI::Range(1, 16384))->capture_default_str();
    parser.add_option("--height", options.height)->check(CLI::Range(1, 16384))->capture_default_str();
    parser.add_option("--bucket", options.bucket, "Width and height of a bucket")
        ->check(CLI::Range(1, 16384))
        ->capture_default_str();
    parser.add_option("--stop-after", options.stopAfter, "End after so many buckets, as if interrupted");
    CLI11_PARSE(parser, argc, argv);

    example::ChannelList channels;
    RIFile file;
    openFile(file, options, channels);
    if (!renderBuckets(file, options, channels))
        return 0;
    check(file.Close()); // Adds an index, by which readers find everything at once.
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "render_buckets: %s\n", error.what());
    return 1;
}
