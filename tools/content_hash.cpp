#include "tools/content_hash.h"

#include "tools/messages.h"

#include "qutils/core/file_ptr.h"
#include "qutils/core/paths.h"

#include <openssl/evp.h>

#include <cerrno>
#include <memory>
#include <vector>

namespace tool {

namespace {

struct FreeContext {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

std::string inHexadecimal(const unsigned char* bytes, unsigned count)
{
    constexpr const char* digits = "0123456789abcdef";
    std::string text;
    for (unsigned i = 0; i < count; ++i)
        text.append({ digits[bytes[i] >> 4], digits[bytes[i] & 15] });
    return text;
}

} // namespace

std::string hashFile(const std::string& name, std::string& obstacle)
{
    constexpr std::size_t blockBytes = std::size_t(256) << 10;
    const std::unique_ptr<EVP_MD_CTX, FreeContext> context(EVP_MD_CTX_new());
    if (!context || EVP_DigestInit_ex(context.get(), EVP_sha1(), nullptr) != 1) {
        obstacle = "no SHA-1 in the cryptography library";
        return {};
    }
    const FilePtr file(QUtils::qutils_fopen(name.c_str(), "rb"));
    std::vector<unsigned char> block(blockBytes);
    std::size_t count = 0;
    while (file && (count = std::fread(block.data(), 1, block.size(), file)) != 0)
        EVP_DigestUpdate(context.get(), block.data(), count);
    if (!file || std::ferror(file)) {
        obstacle = systemWords(errno);
        return {};
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    EVP_DigestFinal_ex(context.get(), digest, &length);
    return inHexadecimal(digest, length);
}

} // namespace tool
