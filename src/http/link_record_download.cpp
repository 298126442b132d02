// The "linkrecord" query: the link record as a file download.
#include "http/link_record_download.h"

#include <ctime>

#include "http/http_answer.h"
#include "link/link_record.h"

bool answer_link_record(const std::string& target, AnswerStream& answer) {
    if (target != "/tuning/device?id=-1&linkrecord") return false;
    const time_t now = time(nullptr);
    tm utc{};
    gmtime_r(&now, &utc);
    char name[32];
    strftime(name, sizeof name, "link-%Y%m%d-%H%M%S.txt", &utc);
    set_response_events_file(answer, link_record_text(), name);
    return true;
}
