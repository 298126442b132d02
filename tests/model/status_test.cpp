// Telemetry replies, the status record and its JSON, and the status number.
#include <gtest/gtest.h>

#include <future>
#include <tuple>

#include "link/link_test_support.h"

namespace {

// One telemetry reply through the reader and the converter; the status JSON after it.
std::string telemetry(const std::string& lines) {
    std::vector<unsigned char> reply(lines.begin(), lines.end());
    parser.parse_tmt(reply, 0);
    parser.tmt_to_status_dev();
    std::string json;
    parser.status_to_json(json);
    return json;
}

struct Status : testing::Test {
    void SetUp() override { parser.clear(); }
};

// Each case is compared with the whole JSON of an empty reply in which only its
// own part changed (the engine-with-panel test pins the layout of a full one).
TEST_F(Status, TelemetryEdgeCasesInTheStatusJson) {
    const std::string cleared = telemetry("");
    EXPECT_NE(std::string::npos, cleared.find(R"("learnkey":"","part":[],"ext":[],"ok":[],"lm":[],"ident")"));
    // All 32 extenders are created: 1 is in the first list, 2 in the second.
    std::string ext = R"({"N":"1","S":"1","T":""},{"N":"2","S":"2","T":""})";
    for (int i = 3; i <= 32; ++i) ext += R"(,{"N":")" + std::to_string(i) + R"(","S":"0","T":""})";
    // Telemetry lines; the part of the JSON they change and what it becomes.
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"+TMT04-1\r\n", R"("server":"")", R"("server":"ON")"},
        {"+tmt10-0.1\r\n", R"("tamper":"")", R"("tamper":"OFF")"},
        {"+tmt10-0.0\r\n", R"("tamper":"")", R"("tamper":"ON")"},
        {"+tmt10-3.1\r\n", R"("ext":[])", R"("ext":[{"N":"3","S":"","T":"OFF"}])"},
        {"+tmt09-1,2.2\r\n", R"("ext":[])", R"("ext":[)" + ext + "]"},
        {"+tmt08-5.123\r\n", R"("lm":[])", R"("lm":[{"N":"5","S":"","R":"12.3"}])"},
        {"+tmt12-*150\r\n", R"("t":"")", R"("t":"-150")"},
        {"+tmt12-!7\r\n", R"("t":"")", R"("t":"7")"},
        {"+tmt16-0\r\n", R"("date":"","time":"")", R"("date":"01.01.1970","time":"00:00:00")"},
    };
    for (const auto& [lines, before, after] : cases) {
        SetUp();
        std::string expected = cleared;
        expected.replace(expected.find(before), before.size(), after);
        EXPECT_EQ(expected, telemetry(lines)) << lines;
    }
}

// A mode other than 1 drops a ready status to 1, which the conversion lifts to
// 2; the same device type in other letter case does not re-initialise.
TEST_F(Status, ModeAndDeviceTypeOfTelemetry) {
    telemetry("+tmt00-1.md14\r\n");  // the JSON upper-cases the stored type
    EXPECT_EQ(3, parser.get_status());
    EXPECT_EQ(128u, parser.status_dev.lm.size());  // an MD14 gets a resistance per lm
    parser.status_dev.lm.clear();
    telemetry("+tmt00-0.md14\r\n");
    EXPECT_EQ(2, parser.get_status());
    EXPECT_TRUE(parser.status_dev.lm.empty());
}

// The HTTP thread renders the status while the device thread converts
// telemetry and writes the texts (run under ThreadSanitizer).
TEST_F(Status, StatusIsReadSafelyWhileTelemetryArrives) {
    auto device = std::async(std::launch::async, [] {
        for (int i = 0; i < 300; ++i) {
            telemetry("+tmt00-" + std::to_string(i % 2) + ".md19\r\n+tmt08-1." + std::to_string(i) + "\r\n");
            parser.set_ready_text(&StatusDevice::msg, std::to_string(i));
            if (i % 50 == 0) parser.clear();
        }
    });
    for (std::string json; device.wait_for(std::chrono::seconds(0)) != std::future_status::ready;)
        parser.status_to_json(json);
    EXPECT_EQ("299", parser.get_ready_text(&StatusDevice::msg));
}

}  // namespace
