#pragma once

#include <csignal>
#include <string>

namespace tool {

/// Holds the signals that ask the program to end back while it lives.
class SignalBlock {
public:
    SignalBlock();
    SignalBlock(const SignalBlock&) = delete;
    SignalBlock& operator=(const SignalBlock&) = delete;
    ~SignalBlock();

private:
    sigset_t m_before;
};

/// Removes a file when a signal ends the program, which dies by that signal. One at a time; lives longer
/// than whatever else removes the file.
class RemoveOnSignal {
public:
    RemoveOnSignal() = default;
    RemoveOnSignal(const RemoveOnSignal&) = delete;
    RemoveOnSignal& operator=(const RemoveOnSignal&) = delete;
    ~RemoveOnSignal();

    void watch(const std::string& name);

private:
    std::string m_name;
};

} // namespace tool
