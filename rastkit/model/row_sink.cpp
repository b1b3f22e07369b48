#include "rastkit/model/row_sink.h"

#include "rastkit/model/clip.h"
#include "rastkit/model/type_information.h"

#include <algorithm>
#include <cstddef>
#include <new>

namespace QUtils {

namespace {

ImgRowBuffer* asRowBuffer(ImgBuffer& buffer)
{
    return hasTypeInformation(buffer) ? dynamic_cast<ImgRowBuffer*>(&buffer) : nullptr;
}

} // namespace

// A class derived from Image8 may treat floats in its own way.
RowSink::RowSink(ImgBuffer& buffer)
    : m_buffer(buffer), m_rows(asRowBuffer(buffer)), m_roundsToBytes(m_rows && isExactly<Image8>(*m_rows))
{
}

RowSink::~RowSink() = default;

ImgErrorCode RowSink::init(int width, int height)
{
    m_buffer.init(width, height);
    if (!m_buffer.isValid())
        return IMGERR_MEMORY;
    setSize(width, height);
    return IMGERR_NONE;
}

void RowSink::adopt(int width, int height)
{
    setSize(width, height);
    m_handsOutStorage = false;
}

void RowSink::setSize(int width, int height)
{
    m_width = std::max(width, 0);
    m_height = std::max(height, 0);
}

bool RowSink::handsOut(int y) const
{
    return m_rows && m_handsOutStorage && y >= 0 && y < m_height;
}

unsigned int* RowSink::storage(int y)
{
    return handsOut(y) ? m_rows->rowData(y) : nullptr;
}

float* RowSink::storageF(int y)
{
    return handsOut(y) ? m_rows->rowDataF(y) : nullptr;
}

unsigned int* RowSink::beginRow(int y)
{
    if (y < 0 || y >= m_height)
        return nullptr;
    if (unsigned int* const row = storage(y))
        return row;
    if (!m_row)
        m_row.reset(new (std::nothrow) unsigned int[std::size_t(m_width)]);
    return m_row.get();
}

void RowSink::endRow(int y, const unsigned int* row)
{
    if (row == m_row.get())
        put(0, y, row, m_width);
}

float* RowSink::beginRowF(int y)
{
    if (y < 0 || y >= m_height)
        return nullptr;
    if (float* const row = storageF(y))
        return row;
    if (!m_rowF)
        m_rowF.reset(new (std::nothrow) float[std::size_t(m_width) * 4]);
    return m_rowF.get();
}

void RowSink::endRowF(int y, const float* row)
{
    if (row == m_rowF.get())
        putF(0, y, row, m_width);
}

bool RowSink::clip(int& x, int y, int& count, int& skipped) const
{
    return y >= 0 && y < m_height && clipRun(m_width, x, count, skipped);
}

void RowSink::put(int x, int y, const unsigned int* argb, int count)
{
    int skipped = 0;
    if (!clip(x, y, count, skipped))
        return;
    argb += skipped;
    if (m_rows) {
        m_rows->setRow(x, y, count, argb);
        return;
    }
    for (int i = 0; i < count; ++i)
        m_buffer.setPixel(x + i, y, argb[i]);
}

void RowSink::putF(int x, int y, const float* rgba, int count)
{
    int skipped = 0;
    if (!clip(x, y, count, skipped))
        return;
    rgba += std::size_t(skipped) * 4;
    if (m_rows) {
        m_rows->setRowF(x, y, count, rgba);
        return;
    }
    for (int i = 0; i < count; ++i)
        m_buffer.setPixelF(x + i, y, rgba + std::size_t(i) * 4);
}

} // namespace QUtils
