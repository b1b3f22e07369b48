#pragma once

#include "rastkit/buffers.h"

#include <cstddef>

namespace QUtils {

/// The sample types of row queries, numbered as the last digit of a PixelFormatCode.
enum class QuerySample { UInt8, UInt16, Int32, Float };

/// Bytes of one sample; of Packed8 one of the four in a pixel.
std::size_t sampleBytes(FrameSample sample);
std::size_t sampleBytes(QuerySample sample);

/// Converts `count` samples, each by itself, whatever components they are. Both sides are aligned for their
/// types and do not overlap.
using SampleConverter = void (*)(const void* samples, void* result, std::size_t count);

/// The conversion of stored samples for a query, by the rules that FrameBuffer states; null where stored
/// samples are delivered as they are.
SampleConverter sampleConverter(FrameSample stored, QuerySample query);

/// The conversion of floats to stored samples, by the same rules; null for Float.
SampleConverter storingConverter(FrameSample stored);

} // namespace QUtils
