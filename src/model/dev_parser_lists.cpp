// Serial port and disk lists, taken from the output of "ls" and "lsblk".
#include <string>
#include <vector>

#include "core/shell.h"
#include "core/utils.h"
#include "model/dev_parser.h"
#include "text/txt_to_utf8.h"

namespace {

const char* const kPortsCommand = "ls /dev/*USB* /dev/*ACM* 2> error.log";
const char* const kDisksCommand = "lsblk -n -p -P -o NAME,LABEL,TRAN,TYPE,MOUNTPOINT 2> error.log";

// One row of the block-device listing.
struct dev_record {
    std::string NAME, LABEL, TRAN, TYPE, MOUNTPOINT;

    void get(std::string& line) {
        NAME = field(line, "NAME=\"");
        LABEL = field(line, "LABEL=\"");
        TRAN = field(line, "TRAN=\"");
        TYPE = field(line, "TYPE=\"");
        MOUNTPOINT = field(line, "MOUNTPOINT=\"");
    }

private:
    static std::string field(std::string& line, const char* key) {
        std::string begin = key;
        std::string end = "\"";
        return get_parameter(line, begin, end);
    }
};

std::string double_backslashes(const std::string& text) {
    std::string out;
    for (char c : text) {
        out += c;
        if (c == '\\') out += '\\';
    }
    return out;
}

std::string disk_json_text(std::string raw) {
    return double_backslashes(txt_to_utf8(raw));
}

}  // namespace

std::string list_ports() {
    return ports_from_ls(shell_output(kPortsCommand));
}

std::string ports_from_ls(const std::string& ls_output) {
    std::string list;
    std::string line;
    for (char c : ls_output) {
        if (c != '\n') {
            line += c;
            continue;
        }
        if (!line.empty()) {
            if (!list.empty()) list += ",";
            list += "\"" + line + "\"";
        }
        line.clear();
    }
    return list;
}

std::string disks_from_lsblk(const std::string& lsblk_output) {
    std::vector<dev_record> records;
    std::vector<std::string> lines;
    split2(lsblk_output, '\n', lines);
    for (std::string& line : lines) {
        if (line.empty()) continue;
        dev_record record;
        record.get(line);
        records.push_back(record);
    }

    std::string out = "{\"result\":{\"disks\":[ ";
    bool first = true;
    for (const dev_record& drive : records) {
        if (drive.TRAN != "usb") continue;
        // Only the drive's first partition is offered, and only when mounted.
        for (const dev_record& record : records) {
            if (record.NAME != drive.NAME + "1" || record.MOUNTPOINT.empty()) continue;
            if (!first) out += ",";
            first = false;
            out += "{\"name\":\"" + disk_json_text(record.MOUNTPOINT) + "\",\"label\":\"" +
                   disk_json_text(record.LABEL) + "\"}";
        }
    }
    return out + "]}}";
}

void DevParser::getdisk_to_json(std::string& out) {
    out = disks_from_lsblk(shell_output(kDisksCommand));
}
