#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <unistd.h>

namespace tool {

/// A bar that shows how far a long piece of work is. It is shown on a terminal only, once the work takes
/// longer than `patience`, and is wiped away at the end.
class Progress {
public:
    using Clock = std::chrono::steady_clock;

    explicit Progress(std::string label, int descriptor = STDERR_FILENO,
        Clock::duration patience = std::chrono::seconds(1));
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress();

    /// `done` of `all`, in any unit. Cheap: may be called for every row.
    void update(std::uint64_t done, std::uint64_t all);

private:
    void print(const std::string& text) const;

    std::string m_label;
    int m_descriptor;
    bool m_isTerminal, m_isShown = false;
    Clock::time_point m_next; // When it is to be drawn.
};

} // namespace tool
