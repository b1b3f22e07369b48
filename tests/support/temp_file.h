#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <unistd.h>
#include <vector>

namespace testing_support {

using Bytes = std::vector<std::uint8_t>;

/// A folder of its own for one test, removed with everything in it.
class TempDir {
public:
    TempDir()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "rastkit-test-XXXXXX").string();
        if (const char* made = mkdtemp(pattern.data()))
            m_path = made;
        else
            ADD_FAILURE() << "no temporary folder at " << pattern;
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir()
    {
        std::error_code ignored;
        if (!m_path.empty())
            std::filesystem::remove_all(m_path, ignored);
    }

    const std::filesystem::path& path() const { return m_path; }
    /// The full name of `name` in the folder.
    std::string operator/(const std::string& name) const { return (m_path / name).string(); }

private:
    std::filesystem::path m_path;
};

inline void writeFile(const std::string& name, const Bytes& bytes)
{
    std::ofstream out(name, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    ASSERT_TRUE(out.flush()) << name;
}

inline Bytes readFile(const std::string& name)
{
    std::ifstream in(name, std::ios::binary);
    EXPECT_TRUE(in) << name;
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

} // namespace testing_support
