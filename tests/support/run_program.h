// Runs a program to completion and captures its standard output.
#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <string>

struct ProgramResult {
    int exit_code = -1;  // -1 when it did not exit normally
    std::string output;
};

// Runs `command` through the shell and returns its exit code and stdout.
inline ProgramResult run_program(const std::string& command) {
    ProgramResult result;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return result;
    char chunk[4096];
    size_t got;
    while ((got = fread(chunk, 1, sizeof chunk, pipe)) > 0) result.output.append(chunk, got);
    int status = pclose(pipe);
    if (WIFEXITED(status)) result.exit_code = WEXITSTATUS(status);
    return result;
}
