// Tests of the console lines for refused connections: once per user in 10 s, with a count of the rest.
#include "http/refused_clients.h"

#include <gtest/gtest.h>

#include <tuple>

TEST(RefusalLog, FirstRefusalPerUserIn10SecondsIsPrintedWithTheCountHeldBack) {
    const std::string user = "Request refused, connection of local user 1000";
    const std::string unknown = "Request refused, owner of the connection unknown";
    const std::tuple<bool, uid_t, long long, std::string> cases[] = {
        // owner known, uid, time in ms, line printed
        {true, 1000, 0, user},
        {true, 1000, 5000, ""},
        {true, 1000, 9999, ""},
        {false, 0, 9999, unknown},  // an unknown owner is a user of its own
        {true, 0, 9999, "Request refused, connection of local user 0"},
        {true, 1000, 10000, user + " (2 more refused before this)"},
        {true, 1000, 10001, ""},
        {false, 0, 12000, ""},
        {true, 1000, 60000, user + " (1 more refused before this)"},
        {false, 0, 60000, unknown + " (1 more refused before this)"},
        {true, 1000, 70000, user},
    };
    RefusalLog log;
    for (const auto& [known, uid, now, line] : cases)
        EXPECT_EQ(log.note({known, uid}, now), line) << uid << " at " << now;
}
