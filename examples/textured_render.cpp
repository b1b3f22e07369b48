// Renders a picture whose textures are many times larger than the memory that it gives them: threads take
// buckets, and look up what they need in one tile cache. Makes such a set of textures too:
//
//   textured_render textures --make-textures
//   textured_render textures picture.png --statistics

#include "textured_scene.h"

#include "rastkit/rastkit.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using textured::Place;
using textured::Vec;

struct Options {
    std::string folder, picture;
    bool makesTextures = false, printsStatistics = false;
    int count = 80, size = 1024;
    int width = 1280, height = 720, threads = 0;
    std::uint64_t bytes = std::uint64_t(64) << 20;
};

/// Calls `work` in so many threads, and waits for them.
void inThreads(int count, const std::function<void()>& work)
{
    std::vector<std::thread> threads;
    threads.reserve(std::size_t(count));
    for (int i = 0; i < count; ++i)
        threads.emplace_back(work);
    for (std::thread& thread : threads)
        thread.join();
}

// --- The textures ----------------------------------------------------------------------------------------

/// Colours that follow each other by number, and yet are all different.
Vec colorOf(int number, float brightness)
{
    const auto wave = [](float turn) { // 0 to 1 and back in a turn.
        return scene::smooth(std::abs(2 * (turn - std::floor(turn)) - 1));
    };
    const float turn = 0.618034f * float(number);
    const Vec color { wave(turn), wave(turn + 0.333f), wave(turn + 0.667f) };
    return mix(Vec { 0.5f, 0.5f, 0.5f }, color, 0.7f) * brightness;
}

/// How much of its second colour a texture has at a place.
float patternAt(int number, float s, float t, float grain)
{
    const int across = int(s * 8), along = int(t * 8);
    switch (number % 5) {
    case 0: return float((across + along) & 1);
    case 1:
        return scene::smooth(4 * std::abs(std::fmod(std::hypot(s - 0.5f, t - 0.5f) * 9, 1.f) - 0.5f) - 0.5f);
    case 2: {
        const float brick = s * 4 + float(along & 1) * 0.5f;
        return brick - std::floor(brick) < 0.06f || t * 8 - float(along) < 0.12f ? 1.f : grain * 0.4f;
    }
    case 3: return scene::smooth(2.5f * grain - 0.6f);
    default: return scene::smooth(5 * std::abs(std::fmod((s + t) * 6, 1.f) - 0.5f) - 0.75f);
    }
}

/// A row of pixels R, G, B, A.
void makeRow(int number, int size, int y, float* rgba)
{
    constexpr float frame = 0.02f;
    const Vec first = colorOf(number, 0.85f), second = colorOf(number + 3, 0.45f);
    const float t = (float(y) + 0.5f) / float(size);
    for (int x = 0; x < size; ++x) {
        const float s = (float(x) + 0.5f) / float(size);
        const float grain = scene::noise({ s * 24, t * 24, float(number) });
        const bool isFrame = std::min({ s, t, 1 - s, 1 - t }) < frame;
        const Vec color
            = isFrame ? Vec { 0.9f, 0.87f, 0.8f } : mix(first, second, patternAt(number, s, t, grain));
        (color * (0.85f + 0.3f * grain)).appendTo(rgba);
        *rgba++ = 1;
    }
}

/// Every other one OpenEXR with half floats, and TIFF with bytes.
void makeTexture(const Options& options, int number)
{
    const bool isTiff = number % 2 != 0;
    QUtils::TextureSettings settings;
    settings.sample = isTiff ? QUtils::TextureSample::Byte : QUtils::TextureSample::Half;
    settings.threads = 1;
    const std::string name
        = options.folder + "/texture" + std::to_string(number) + (isTiff ? ".tif" : ".exr");
    QUtils::TextureWriter writer(name.c_str(), settings);
    writer.init(options.size, options.size);
    std::vector<float> row(std::size_t(options.size) * 4);
    for (int y = 0; y < options.size; ++y) {
        makeRow(number, options.size, y, row.data());
        writer.setRowF(0, y, options.size, row.data());
    }
    if (const ImgError error = writer.finish(); error.code() != IMGERR_NONE)
        throw std::runtime_error(name + " cannot be written");
}

void makeTextures(const Options& options)
{
    std::filesystem::create_directories(options.folder);
    std::atomic<int> next = 0, failures = 0;
    inThreads(options.threads, [&] {
        for (int number = next++; number < options.count; number = next++)
            try {
                makeTexture(options, number);
            } catch (const std::exception& error) {
                std::fprintf(stderr, "textured_render: %s\n", error.what());
                ++failures;
            }
    });
    if (failures != 0)
        throw std::runtime_error("not all textures could be made");
}

/// All files of the folder that are textures, in the order of their names.
std::vector<QUtils::Texture> openTextures(QUtils::TileCache& cache, const std::string& folder)
{
    std::vector<std::string> names;
    for (const std::filesystem::directory_entry& entry : std::filesystem::directory_iterator(folder))
        names.push_back(entry.path().string());
    std::sort(names.begin(), names.end());
    std::vector<QUtils::Texture> textures;
    for (const std::string& name : names) {
        QUtils::Texture texture = cache.open(name.c_str());
        if (texture)
            textures.push_back(std::move(texture));
        else if (texture.error() == IMGERR_MEMORY)
            throw std::runtime_error("there is too little memory for the textures");
    }
    if (textures.empty())
        throw std::runtime_error(folder + " has no textures; --make-textures makes some");
    return textures;
}

// --- The picture -----------------------------------------------------------------------------------------

class Renderer {
public:
    Renderer(const Options& options, QUtils::TileCache& cache)
        : m_options(options), m_cache(cache), m_textures(openTextures(cache, options.folder)),
          m_frame(options.width, options.height)
    {
        if (m_frame.addChannel("beauty", QUtils::PIXELCHANNEL_COLOR, 4, QUtils::FrameSample::Float) < 0)
            throw std::runtime_error("no memory for the picture");
    }

    QUtils::FrameBuffer& render()
    {
        const int across = (m_options.width + bucket - 1) / bucket;
        const int count = across * ((m_options.height + bucket - 1) / bucket);
        std::atomic<int> next = 0;
        inThreads(m_options.threads, [&] {
            for (int i = next++; i < count; i = next++)
                renderBucket(i % across * bucket, i / across * bucket);
        });
        if (m_failures != 0)
            throw std::runtime_error(std::to_string(m_failures) + " texture look-ups failed");
        return m_frame;
    }

private:
    static constexpr int bucket = 32;

    void renderBucket(int left, int top)
    {
        const int right = std::min(left + bucket, m_options.width);
        for (int y = top; y < std::min(top + bucket, m_options.height); ++y)
            for (int x = left; x < right; ++x) {
                float* pixel = m_frame.rowF(0, y) + std::size_t(x) * 4;
                display(pixelAt(x, y)).appendTo(pixel);
                *pixel = 1;
            }
    }

    /// The mean of 2 x 2 rays.
    Vec pixelAt(int x, int y)
    {
        Vec sum {};
        for (const float down : { 0.25f, 0.75f })
            for (const float right : { 0.25f, 0.75f })
                sum = sum + trace(float(x) + right, float(y) + down);
        return sum * 0.25f;
    }

    Vec directionAt(float x, float y) const
    {
        const float scale = 1.05f / float(m_options.height);
        return Vec { (x - 0.5f * float(m_options.width)) * scale,
            (0.5f * float(m_options.height) - y) * scale - 0.1f, -1 }
            .unit();
    }

    Vec trace(float x, float y)
    {
        constexpr Vec camera { 0.2f, 1.7f, 6.5f };
        constexpr float step = 0.5f; // To the next ray, pixels.
        const Vec direction = directionAt(x, y);
        const textured::Hit hit = textured::findHit(camera, direction);
        if (!hit.object)
            return textured::skyAt(direction);
        const Vec point = camera + direction * hit.distance;
        const textured::Footprint seen = textured::footprintAt(
            hit, camera, direction, directionAt(x + step, y), directionAt(x, y + step));
        const Vec color = filtered(
            m_textures[hit.object->textureAt(point) % m_textures.size()], seen, hit.object->isRound());
        // What is far fades into the sky, before its textures are smaller than a pixel.
        const float haze = scene::smooth(hit.distance / 90);
        return mix(
            color * textured::lightAt(point, hit.object->normalAt(point)), textured::skyAt(direction), haze);
    }

    /// A footprint is far longer than wide where a surface is seen at a low angle: samples of its width are
    /// taken along its length.
    Vec filtered(const QUtils::Texture& texture, const textured::Footprint& seen, bool isRound)
    {
        constexpr int mostSamples = 8;
        const float right = std::hypot(seen.right.s, seen.right.t),
                    down = std::hypot(seen.down.s, seen.down.t);
        const Place axis = right > down ? seen.right : seen.down;
        const float length = std::max(right, down);
        const float narrow = std::max(std::min(right, down), length / mostSamples);
        const int count = narrow > 0 ? std::clamp(int(std::ceil(length / narrow)), 1, mostSamples) : 1;
        const QUtils::TextureWrap wrap = isRound ? QUtils::TextureWrap::Periodic : QUtils::TextureWrap::Clamp;
        // A slab's texture ends where the slab does.
        const Place begin
            = isRound ? Place { 0, 0 } : Place { std::floor(seen.middle.s), std::floor(seen.middle.t) };
        const Place middle = seen.middle - begin;
        Vec sum {};
        for (int i = 0; i < count; ++i) {
            const float along = (float(i) + 0.5f) / float(count) - 0.5f;
            float rgba[4] = {};
            if (m_cache.sample(
                    texture, middle.s + axis.s * along, middle.t + axis.t * along, narrow, wrap, rgba)
                != IMGERR_NONE)
                ++m_failures;
            sum = sum + Vec { rgba[0], rgba[1], rgba[2] };
        }
        return sum * (1 / float(count));
    }

    /// Light as a screen shows it, 0 to 1.
    static Vec display(Vec light)
    {
        const auto curve = [](float v) { return std::sqrt(std::clamp(v, 0.f, 1.f)); };
        return { curve(light.x), curve(light.y), curve(light.z) };
    }

    const Options& m_options;
    QUtils::TileCache& m_cache;
    std::vector<QUtils::Texture> m_textures;
    QUtils::FrameBuffer m_frame;
    std::atomic<int> m_failures = 0;
};

void writePicture(const std::string& name, QUtils::FrameBuffer& frame)
{
    QUtils::ImageWriterInterface* const writer = QUtils::newDefaultImageWriter();
    const ImgError error
        = writer ? writer->writeImage(name.c_str(), -1, &frame, 0, 1) : ImgError(IMGERR_MEMORY);
    QUtils::deleteDefaultImageWriter(writer);
    if (error.code() != IMGERR_NONE)
        throw std::runtime_error(name + " cannot be written");
}

void render(const Options& options)
{
    QUtils::TileCacheSettings settings;
    settings.maxBytes = options.bytes;
    QUtils::TileCache cache(settings);
    {
        Renderer renderer(options, cache); // Its textures end before the cache does.
        writePicture(options.picture, renderer.render());
    }
    if (options.printsStatistics)
        std::printf("%s\n", cache.statistics().toJson().c_str());
}

} // namespace

int main(int argc, char** argv)
try {
    Options options;
    CLI::App parser("Renders a picture with more textures than fit into memory.");
    parser.add_option("FOLDER", options.folder, "The textures")->required();
    parser.add_option("PICTURE", options.picture, "The file that is written, png or exr for instance");
    parser.add_flag("--make-textures", options.makesTextures, "Make the textures instead");
    parser.add_option("--count", options.count, "So many of them")
        ->check(CLI::Range(1, 10000))
        ->capture_default_str();
    parser.add_option("--size", options.size, "Their width and height")
        ->check(CLI::Range(1, 16384))
        ->capture_default_str();
    parser.add_option("--width", options.width)->check(CLI::Range(1, 16384))->capture_default_str();
    parser.add_option("--height", options.height)->check(CLI::Range(1, 16384))->capture_default_str();
    parser.add_option("--threads", options.threads, "0: as many as there are processors")
        ->check(CLI::Range(0, 256))
        ->capture_default_str();
    parser.add_option("--bytes", options.bytes, "Memory for textures at most")->capture_default_str();
    parser.add_flag("--statistics", options.printsStatistics, "Print what the cache did, as JSON");
    CLI11_PARSE(parser, argc, argv);

    if (options.threads == 0)
        options.threads = int(std::max(std::thread::hardware_concurrency(), 1u));
    if (!options.makesTextures && options.picture.empty())
        throw std::runtime_error("no picture is named");
    if (options.makesTextures)
        makeTextures(options);
    else
        render(options);
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "textured_render: %s\n", error.what());
    return 1;
}
