#pragma once

#include "rastkit/types.h"

#include <functional>
#include <string>

namespace tool {

/// The index of the format that the name's extension asks for; -1, with a message, when there is none to
/// be written.
int chooseFormat(const std::string& name);

/// Why a write failed; `number` is the errno that it left, 0 if none.
std::string writeReason(const ImgError& error, int number);

/// Has `save(name)` write a file that takes the place of `target` once it is complete, so that a failure
/// leaves the old one as it was. Why it was not written, which `save` says itself; empty when it was.
std::string writeAtomically(
    const std::string& target, bool sync, const std::function<std::string(const std::string& name)>& save);

} // namespace tool
