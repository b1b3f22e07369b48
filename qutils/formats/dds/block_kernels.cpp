#include "qutils/formats/dds/block_kernels.h"

#include "qutils/formats/dds/block_levels.h"

#include <cpuid.h>

namespace QUtils {

namespace {

constexpr BlockKernels scalarKernels = { scalar_blocks::bc1, scalar_blocks::bc2, scalar_blocks::bc3,
    scalar_blocks::bc4, scalar_blocks::bc5, scalar_blocks::bc7, scalar_blocks::arrange };
constexpr BlockKernels sse41Kernels = { sse41_blocks::bc1, sse41_blocks::bc2, sse41_blocks::bc3,
    sse41_blocks::bc4, sse41_blocks::bc5, sse41_blocks::bc7, sse41_blocks::arrange };

bool hasSse41()
{
    unsigned int a = 0, b = 0, c = 0, d = 0;
    return __get_cpuid(1, &a, &b, &c, &d) != 0 && (c & bit_SSE4_1) != 0 && (c & bit_SSSE3) != 0;
}

} // namespace

const BlockKernels* blockKernels(DdsSimd level)
{
    if (level == DdsSimd::Scalar)
        return &scalarKernels;
    static const bool available = hasSse41();
    return available ? &sse41Kernels : nullptr;
}

const BlockKernels& blockKernels()
{
    const BlockKernels* const best = blockKernels(DdsSimd::Sse41);
    return best ? *best : scalarKernels;
}

} // namespace QUtils
