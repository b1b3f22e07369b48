#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace QUtils {

/// How the bytes of a stored value become a packed pixel.
enum class TgaEncoding {
    None, ///< Not decoded: 0.
    Grey8,
    Grey16, ///< Grey and a byte that counts for nothing.
    GreyAlpha,
    Color15, ///< Five bits each of red, green and blue below a bit that counts for nothing.
    Color16, ///< The same below a bit of alpha.
    Color24,
    Color32, ///< Blue, green, red, alpha.
    Color32Opaque,
    Index8, ///< The number of a colour-map entry.
    Index16,
    Index24,
    Index32,
};

struct TgaColorMap {
    std::unique_ptr<std::uint32_t[]> entries;
    std::uint32_t length = 0, firstIndex = 0;

    /// 0 for an index that the map does not have.
    std::uint32_t at(std::uint32_t index) const
    {
        const std::uint32_t entry = index - firstIndex;
        return entry < length ? entries[entry] : 0;
    }
};

/// Turns the stored values of one image into packed pixels. What to do is chosen once, then run.
class TgaValueDecoder {
public:
    /// `map` outlives the decoder; it is looked at by the index encodings alone.
    TgaValueDecoder(TgaEncoding encoding, std::size_t valueBytes, const TgaColorMap& map);

    std::size_t valueBytes() const { return m_valueBytes; }
    std::uint32_t one(const std::uint8_t* value) const { return m_one(value, m_map); }
    void many(const std::uint8_t* values, std::uint32_t* argb, std::size_t count) const
    {
        m_many(values, m_map, argb, count);
    }

    using DecodeOne = std::uint32_t (*)(const std::uint8_t* value, const TgaColorMap& map);
    using DecodeMany = void (*)(
        const std::uint8_t* values, const TgaColorMap& map, std::uint32_t* argb, std::size_t count);

private:
    DecodeOne m_one;
    DecodeMany m_many;
    std::size_t m_valueBytes;
    const TgaColorMap& m_map;
};

} // namespace QUtils
