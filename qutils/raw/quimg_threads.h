#pragma once

#include <cstddef>

namespace QUtils::quimg {

/// Pieces of work that do not depend on each other.
class Work {
public:
    /// Called once for each number, from several threads at once.
    virtual void run(std::size_t number) noexcept = 0;

protected:
    ~Work() = default;
};

/// Does `count` pieces, on the caller's thread and on those that the process gave to OpenEXR's pool.
/// Throws std::bad_alloc before anything is done, or else nothing.
void runWork(Work& work, std::size_t count);

} // namespace QUtils::quimg
