// The engine's one door to shell commands (stty, ls, lsblk, su, echo).
#pragma once

#include <cstdio>
#include <memory>
#include <string>

struct PipeCloser {
    void operator()(FILE* pipe) const { pclose(pipe); }
};
// A running shell command; closing it waits for the command to end.
using ShellPipe = std::unique_ptr<FILE, PipeCloser>;

// Starts `command` with its output readable; empty when it cannot be started.
ShellPipe shell_start(const std::string& command);

// Everything `command` prints, after it has ended; empty when it cannot be started.
std::string shell_output(const std::string& command);
