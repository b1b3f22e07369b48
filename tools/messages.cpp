#include "tools/messages.h"

#include <iostream>
#include <system_error>

namespace tool {

namespace {

const char* wordsOf(int code)
{
    switch (code) {
    case IMGERR_NONE: return "no error";
    case IMGERR_OPEN: return "it cannot be opened";
    case IMGERR_READ: return "its pixels are cut short or damaged";
    case IMGERR_FORMAT: return "not an image of a known format, or its header is damaged";
    case IMGERR_MEMORY: return "the image is too large for the memory";
    case IMGERR_UNSUPPORTED: return "the format, or what the image needs of it, is not supported";
    case IMGERR_LIBRARY: return "the codec library reports an error";
    case IMGERR_WRITE: return "not all of it was taken";
    default: return "unknown error";
    }
}

} // namespace

void reportMessage(const std::string& message)
{
    std::cerr << "rastkit: " << message << '\n';
}

void reportFailure(const std::string& file, const char* what, const std::string& why)
{
    reportMessage(file + ": " + what + ": " + why);
}

std::string inWords(const ImgError& error)
{
    std::string words = wordsOf(error.code());
    if (*error.message() != '\0')
        words.append(" (").append(error.message()).append(")");
    return words;
}

std::string systemWords(int number)
{
    return std::generic_category().message(number);
}

} // namespace tool
