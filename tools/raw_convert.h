#pragma once

#include <string>

namespace tool {

struct RawConvertArguments {
    std::string in, out;
    bool separate = false, folders = false;
};

/// `rastkit raw convert`; answers an ExitCode.
int convertRaw(const RawConvertArguments& arguments);

} // namespace tool
