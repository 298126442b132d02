// The engine's one door to shell commands (stty, ls, lsblk, su, echo).
#include "core/shell.h"

ShellPipe shell_start(const std::string& command) {
    return ShellPipe(popen(command.c_str(), "r"));
}

std::string shell_output(const std::string& command) {
    std::string out;
    ShellPipe pipe = shell_start(command);
    if (!pipe) return out;
    char chunk[512];
    size_t got;
    while ((got = fread(chunk, 1, sizeof chunk, pipe.get())) > 0) out.append(chunk, got);
    return out;
}
