#pragma once

#include "rastkit/model/pixel_memory.h"
#include "rastkit/tiles/mip_filter.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace QUtils {

/// Makes the rows of all smaller levels out of those of the largest, which come in any order. Each level is
/// filtered from the one above it, first along the rows; a row is made as soon as all are there that it
/// needs, and nothing is kept that no other row needs.
///
/// Rows are floats, the channels of a pixel together. The result does not depend on the order.
class MipPyramid {
public:
    /// Who gets the rows that are made.
    class Receiver {
    public:
        /// Row `y` of a level from 1 on, good during the call.
        virtual void takeRow(int level, int y, const float* row) = 0;

    protected:
        ~Receiver() = default;
    };

    /// Width and height of the largest level are at least 1, channels 1 to 4. Throws std::bad_alloc.
    MipPyramid(int width, int height, int channels, MipFilter filter, TextureWrap wrapX, TextureWrap wrapY,
        Receiver& receiver);
    MipPyramid(const MipPyramid&) = delete;
    MipPyramid& operator=(const MipPyramid&) = delete;
    ~MipPyramid();

    static int levelCount(int width, int height);
    /// The size of an axis in a level.
    static int sizeAt(int level, int size) { return size >> level > 1 ? size >> level : 1; }

    /// Row `y` of the largest level, each of them once. Throws std::bad_alloc.
    void putRow(int y, const float* row);

    /// Rows that are kept for others to come, of all levels; for tests.
    std::size_t keptRows() const;

private:
    class Step;

    void put(std::size_t level, int y, const float* row);

    Receiver& m_receiver;
    std::vector<std::unique_ptr<Step>> m_steps; // From each level to the next.
};

} // namespace QUtils
