#include "tools/progress.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <termios.h>

namespace {

using namespace std::chrono_literals;

/// A terminal without a user.
class PseudoTerminal {
public:
    PseudoTerminal() : m_host(posix_openpt(O_RDWR | O_NOCTTY))
    {
        grantpt(m_host);
        unlockpt(m_host);
        m_terminal = open(ptsname(m_host), O_RDWR | O_NOCTTY); // NOLINT(concurrency-mt-unsafe): one thread.
        EXPECT_TRUE(isatty(m_terminal));
    }
    PseudoTerminal(const PseudoTerminal&) = delete;
    PseudoTerminal& operator=(const PseudoTerminal&) = delete;
    ~PseudoTerminal()
    {
        close(m_terminal);
        close(m_host);
    }

    int descriptor() const { return m_terminal; }
    /// What was printed since the last call.
    std::string printed() const
    {
        std::string text;
        pollfd waiting { m_host, POLLIN, 0 };
        while (poll(&waiting, 1, 20) == 1 && (waiting.revents & POLLIN) != 0) {
            char block[512];
            const ssize_t count = read(m_host, block, sizeof block);
            text.append(block, count > 0 ? std::size_t(count) : 0);
        }
        return text;
    }

private:
    int m_host, m_terminal = -1;
};

TEST(ToolProgress, ShowsABarOnATerminalAndWipesItAway)
{
    const PseudoTerminal terminal;
    {
        tool::Progress progress("a.tif", terminal.descriptor(), 0s);
        progress.update(1, 4);
        const std::string bar = terminal.printed();
        EXPECT_NE(bar.find("a.tif [##########     "), std::string::npos) << bar;
        EXPECT_NE(bar.find("]  25 %"), std::string::npos) << bar;
        progress.update(2, 4); // Too soon after the first one.
        EXPECT_EQ(terminal.printed(), "");
    }
    EXPECT_EQ(terminal.printed(), "\r\x1b[K");
}

TEST(ToolProgress, WorkThatIsDoneSoonShowsNothing)
{
    const PseudoTerminal terminal;
    {
        tool::Progress progress("a.tif", terminal.descriptor(), 1h);
        progress.update(1, 2);
        progress.update(2, 2);
    }
    EXPECT_EQ(terminal.printed(), "");
}

TEST(ToolProgress, AFileIsNoTerminal)
{
    char name[] = "/tmp/rastkit-test-XXXXXX";
    const int file = mkstemp(name);
    {
        tool::Progress progress("a.tif", file, 0s);
        progress.update(1, 2);
    }
    EXPECT_EQ(lseek(file, 0, SEEK_END), 0);
    close(file);
    unlink(name);
}

TEST(ToolProgress, MoreThanAllIsAllAndNothingOfNothingIsNotShown)
{
    const PseudoTerminal terminal;
    tool::Progress progress("b", terminal.descriptor(), 0s);
    progress.update(0, 0);
    EXPECT_EQ(terminal.printed(), "");
    progress.update(9, 4);
    EXPECT_NE(terminal.printed().find("] 100 %"), std::string::npos);
}

} // namespace
