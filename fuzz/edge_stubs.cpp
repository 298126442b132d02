// Stand-ins, in the fuzz build only, for the units that touch the machine:
// shell commands, files written or removed, the serial line opened.
//
// They are linked in place of src/core/shell.cpp, src/core/safe_files.cpp and
// src/link/port_line.cpp, so a fuzz input runs no command (stty, ls, lsblk,
// su), writes and removes no file (a drive save names any directory) and opens
// no device (a connect names any path).
#include "core/safe_files.h"
#include "core/shell.h"
#include "link/port_line.h"

ShellPipe shell_start(const std::string&) {
    return ShellPipe();
}

// What the commands the engine runs print on a machine with one panel port and
// one mounted USB drive, so that the lists' parsers see real text.
std::string shell_output(const std::string& command) {
    if (command.starts_with("ls ")) return "/dev/ttyUSB0\n";
    if (command.starts_with("lsblk ")) {
        return "NAME=\"/dev/sda\" LABEL=\"\" TRAN=\"sata\" TYPE=\"disk\" MOUNTPOINT=\"\"\n"
               "NAME=\"/dev/sdb\" LABEL=\"\" TRAN=\"usb\" TYPE=\"disk\" MOUNTPOINT=\"\"\n"
               "NAME=\"/dev/sdb1\" LABEL=\"DRIVE\" TRAN=\"\" TYPE=\"part\" MOUNTPOINT=\"/media/drive\"\n";
    }
    return "";
}

bool write_file_in(int, const char*, const std::string&) {
    return true;
}

bool replace_file_in(int, const char*, const std::string&) {
    return true;
}

void prepare_line(const std::string&) {}

int open_line(const std::string&) {
    return -1;
}
