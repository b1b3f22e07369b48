// The text of extra attributes, to a header that can then be written.

#include "fuzz_support.h"
#include "rastkit/exr/extra_attributes.h"

#include <Iex.h>
#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfIO.h>
#include <ImfInputFile.h>
#include <ImfOutputFile.h>

#include <cstring>

using namespace fuzz_support;

namespace {

/// A file in memory.
class MemoryOut : public Imf::OStream {
public:
    MemoryOut() : OStream("memory") { }
    void write(const char* bytes, int count) override
    {
        if (m_position + std::size_t(count) > content.size())
            content.resize(m_position + std::size_t(count));
        std::memcpy(content.data() + m_position, bytes, std::size_t(count));
        m_position += std::size_t(count);
    }
    std::uint64_t tellp() override { return m_position; }
    void seekp(std::uint64_t position) override { m_position = position; }

    std::vector<char> content;

private:
    std::size_t m_position = 0;
};

class MemoryIn : public Imf::IStream {
public:
    explicit MemoryIn(const std::vector<char>& content) : IStream("memory"), m_content(content) { }
    bool read(char* bytes, int count) override
    {
        if (std::size_t(count) > m_content.size() - m_position)
            throw Iex::InputExc("end of file");
        std::memcpy(bytes, m_content.data() + m_position, std::size_t(count));
        m_position += std::size_t(count);
        return m_position < m_content.size();
    }
    std::uint64_t tellg() override { return m_position; }
    void seekg(std::uint64_t position) override
    {
        m_position = std::min<std::uint64_t>(position, m_content.size());
    }

private:
    const std::vector<char>& m_content;
    std::size_t m_position = 0;
};

/// Whatever the attributes are, a file is written with them and read again.
void writeAndRead(const Imf::Header& header)
{
    float row[3] = { 0, 1.5f, 2 };
    Imf::FrameBuffer slices;
    slices.insert("R", Imf::Slice(Imf::FLOAT, reinterpret_cast<char*>(row), sizeof *row, 0));
    MemoryOut out;
    {
        Imf::OutputFile file(out, header, 0);
        file.setFrameBuffer(slices);
        file.writePixels(2);
    }
    MemoryIn in(out.content);
    Imf::InputFile file(in, 0);
    require(file.isComplete(), "a file without its rows");
    for (auto it = header.begin(); it != header.end(); ++it)
        require(file.header().find(it.name()) != file.header().end(), "an attribute was lost");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::string text(reinterpret_cast<const char*>(data), size);
    Imf::Header header(3, 2);
    header.channels().insert("R", Imf::Channel(Imf::FLOAT));
    ExrHeaderWrapper wrapper(header);
    const QUtils::ErrorCode error = WriteEXRExtraAttributes(wrapper, text.data());
    require(error.code() <= 0 && error.code() >= -4, "an error that there is not");
    require((error.code() != 0) == (*error.message() != '\0'), "an error without a text");
    try {
        writeAndRead(header);
    } catch (const std::exception& exception) {
        require(false, exception.what());
    }
    return 0;
}
