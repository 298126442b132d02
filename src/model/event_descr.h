// The panel's event table: the Contact ID event codes it reports and their Russian descriptions.
#pragma once

#include <string>

// One entry of the table: an event (E) or its restoral (R) with a three-digit code.
struct EventDescr {
    char letter;        // 'E' or 'R'
    const char* code;   // three decimal digits
    const char* descr;  // UTF-8
};

inline constexpr int event_table_size = 81;

// The table in the panel's order; a code may appear twice (event and restoral).
extern const EventDescr e[event_table_size];

// The description of an event text such as "E110" (letter, then code), or an
// empty text when no entry matches. Letters compare exactly: "e110" is unknown.
std::string event_descr(const std::string& event);
