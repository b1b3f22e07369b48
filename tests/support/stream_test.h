#pragma once

#include "qutils/core/file_ptr.h"
#include "support/temp_file.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace testing_support {

/// A test of what is read from a stream.
class StreamTest : public testing::Test {
protected:
    /// A stream over a file of those bytes, which lives as long as the test or until the next one.
    std::FILE* over(const Bytes& bytes)
    {
        writeFile(m_folder / "in", bytes);
        m_file = QUtils::FilePtr(std::fopen((m_folder / "in").c_str(), "rb"));
        return m_file;
    }

private:
    TempDir m_folder;
    QUtils::FilePtr m_file;
};

} // namespace testing_support
