#pragma once

#include "rastkit/exr/exr_input.h"

#include <ImfThreading.h>

#include <cstddef>
#include <cstdint>
#include <utility>

namespace QUtils {

/// A file that one of OpenEXR's classes reads, its headers checked, in blocks of so many bytes. The
/// constructor throws whatever is wrong with it.
template <typename File> class OpenExr {
public:
    explicit OpenExr(const char* name, std::size_t blockBytes = ExrInput::largeBlock)
        : m_input(name, blockBytes), m_chunks(checkExrHeaders(m_input)),
          m_file(m_input, Imf::globalThreadCount())
    {
        m_input.expectChunks(std::move(m_chunks));
    }

    File& operator*() { return m_file; }
    File* operator->() { return &m_file; }
    std::uint64_t bytes() const { return m_input.size(); }

private:
    ExrInput m_input;
    ExrInput::Chunks m_chunks;
    File m_file;
};

} // namespace QUtils
