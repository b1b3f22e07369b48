#pragma once

#include "support/temp_file.h"

#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>

namespace testing_support {

/// How a program ended and what it printed.
struct ProgramResult {
    int exitCode = -1; ///< -1 when a signal ended it.
    int signal = 0;
    std::string out, err;
};

/// A program under test in a process of its own, whose standard streams are files.
class Program {
public:
    using Arguments = std::vector<std::string>;

    /// `maxFileBytes` limits each file that the program writes.
    Program(const std::string& program, Arguments arguments, rlim_t maxFileBytes = RLIM_INFINITY)
    {
        arguments.insert(arguments.begin(), program);
        std::vector<char*> argv;
        for (std::string& argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        const std::string out = m_dir / "out", err = m_dir / "err";
        m_process = fork();
        if (m_process == 0)
            runAsChild(argv.data(), out.c_str(), err.c_str(), maxFileBytes);
        EXPECT_GT(m_process, 0);
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    ~Program()
    {
        if (m_process > 0) {
            sendSignal(SIGKILL);
            waitpid(m_process, nullptr, 0);
        }
    }

    void sendSignal(int number) const
    {
        if (m_process > 0)
            kill(m_process, number);
    }

    /// Whether the program is still at work.
    bool isRunning() const
    {
        siginfo_t state {};
        return waitid(P_PID, id_t(m_process), &state, WEXITED | WNOHANG | WNOWAIT) == 0 && state.si_pid == 0;
    }

    ProgramResult wait()
    {
        int status = 0;
        EXPECT_EQ(waitpid(m_process, &status, 0), m_process);
        m_process = -1;
        return { WIFEXITED(status) ? WEXITSTATUS(status) : -1, WIFSIGNALED(status) ? WTERMSIG(status) : 0,
            textOf("out"), textOf("err") };
    }

private:
    /// Between fork and exec nothing is called that may wait for another thread.
    [[noreturn]] static void runAsChild(
        char* const* argv, const char* out, const char* err, rlim_t maxFileBytes)
    {
        dup2(open(out, O_WRONLY | O_CREAT, 0600), STDOUT_FILENO);
        dup2(open(err, O_WRONLY | O_CREAT, 0600), STDERR_FILENO);
        const rlimit limit { maxFileBytes, RLIM_INFINITY };
        if (maxFileBytes != RLIM_INFINITY)
            setrlimit(RLIMIT_FSIZE, &limit);
        execv(argv[0], argv);
        _exit(127);
    }
    std::string textOf(const std::string& name) const
    {
        const Bytes bytes = readFile(m_dir / name);
        return std::string(bytes.begin(), bytes.end());
    }

    TempDir m_dir;
    pid_t m_process = -1;
};

#ifdef RASTKIT_PROGRAM
/// The tool, run to its end.
inline ProgramResult runTool(const Program::Arguments& arguments, rlim_t maxFileBytes = RLIM_INFINITY)
{
    return Program(RASTKIT_PROGRAM, arguments, maxFileBytes).wait();
}
#endif

} // namespace testing_support
