#include "tools/progress.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <utility>

namespace tool {

namespace {

constexpr auto drawingInterval = std::chrono::milliseconds(100);
constexpr std::size_t barLength = 40;
constexpr const char* wipe = "\r\x1b[K";

} // namespace

Progress::Progress(std::string label, int descriptor, Clock::duration patience)
    : m_label(std::move(label)), m_descriptor(descriptor), m_isTerminal(::isatty(descriptor) == 1),
      m_next(Clock::now() + patience)
{
}

Progress::~Progress()
{
    if (m_isShown)
        print(wipe);
}

void Progress::update(std::uint64_t done, std::uint64_t all)
{
    if (!m_isTerminal || all == 0)
        return;
    const Clock::time_point now = Clock::now();
    if (now < m_next)
        return;
    m_next = now + drawingInterval;
    m_isShown = true;
    const double part = std::min(double(done) / double(all), 1.0);
    const auto filled = std::size_t(part * double(barLength));
    char percent[16];
    std::snprintf(percent, sizeof percent, "] %3d %%", int(part * 100));
    print(wipe + m_label + " [" + std::string(filled, '#') + std::string(barLength - filled, ' ') + percent);
}

void Progress::print(const std::string& text) const
{
    // A terminal that does not take it shows no bar; the work goes on.
    static_cast<void>(::write(m_descriptor, text.data(), text.size()) == ssize_t(text.size()));
}

} // namespace tool
