// Telemetry replies, the status record and its JSON, and the status number.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cstdio>

#include "core/engine.h"
#include "model/dev_parser.h"
#include "model/model_test_support.h"

namespace {

// The status JSON with every field spelled out; ready texts and progress at
// their cleared values, no ports.
struct Expect {
    std::string devtype{};
    std::string status = "2";
    std::string sim{}, gsm{}, server{}, power_mode{}, power_value{}, power_ext{};
    std::string tamper{}, t{}, balance{}, modem{}, xcpu{}, learnkey{};
    std::string part{}, ext{}, ok{}, lm{};
    std::string ident{}, date{}, time{}, ip{}, port{};
};

std::string status_json(const Expect& e) {
    auto pair = [](const char* name, const std::string& value) {
        return "\"" + std::string(name) + "\":\"" + value + "\",";
    };
    return "{\"result\":{" + pair("devtype", e.devtype) + pair("status", e.status) +
           "\"statusready\":{\"rcfg\":\"0\",\"rmsg\":\"0\",\"rlog\":\"0\",\"rupd\":\"0\"},"
           "\"progress\":{\"cfg\":\"0\",\"msg\":\"0\",\"log\":\"0\",\"logmax\":\"0\",\"upd\":\"0\"},"
           "\"update\":false,\"com\":[]," +
           pair("sim", e.sim) + pair("gsm", e.gsm) + pair("server", e.server) +
           pair("power_mode", e.power_mode) + pair("power_value", e.power_value) +
           pair("power_ext", e.power_ext) + pair("tamper", e.tamper) + pair("t", e.t) +
           pair("balance", e.balance) + pair("modem", e.modem) + pair("xcpu", e.xcpu) +
           pair("learnkey", e.learnkey) + "\"part\":[" + e.part + "],\"ext\":[" + e.ext + "],\"ok\":[" +
           e.ok + "],\"lm\":[" + e.lm + "]," + pair("ident", e.ident) + pair("date", e.date) +
           pair("time", e.time) + "\"temp_server\":{\"ip\":\"" + e.ip + "\",\"port\":\"" + e.port + "\"}}}";
}

std::string all_extenders(int in_list_one, int in_list_two) {
    std::string out;
    for (int i = 1; i <= 32; ++i) {
        const char* state = i == in_list_two ? "2" : i == in_list_one ? "1" : "0";
        out += (i > 1 ? "," : "") + std::string("{\"N\":\"") + std::to_string(i) + "\",\"S\":\"" + state +
               "\",\"T\":\"\"}";
    }
    return out;
}

std::string resistances(const std::string& r) {
    std::string out;
    for (int i = 1; i <= 128; ++i)
        out += (i > 1 ? "," : "") + std::string("{\"N\":\"") + std::to_string(i) + "\",\"S\":\"\",\"R\":\"" +
               r + "\"}";
    return out;
}

class StatusTest : public testing::Test {
protected:
    void SetUp() override {
        parser.clear();
        parser.ready = false;
        parser.status_dev.com.clear();
    }

    void telemetry(const std::string& text) {
        std::vector<unsigned char> reply = bytes_of("0000L" + text);
        parser.parse_tmt(reply, 5);
        parser.tmt_to_status_dev();
    }

    std::string json() {
        std::string out = "stale";
        parser.status_to_json(out);
        return out;
    }
};

TEST_F(StatusTest, TelemetryLinesBecomeStatusJson) {
    struct Case {
        std::string lines;
        Expect expect;
    };
    const Case cases[] = {
        {"", {}},
        {"+TMT04-1\r\n", {.server = "ON"}},
        {"+tmt04-0\r\n", {.server = "OFF"}},
        {"+tmt10-0.1\r\n", {.tamper = "OFF"}},
        {"+tmt10-0.0\r\n", {.tamper = "ON"}},
        {"+tmt10-3.1\r\n", {.ext = "{\"N\":\"3\",\"S\":\"\",\"T\":\"OFF\"}"}},
        {"+tmt09-1,2.2\r\n", {.ext = all_extenders(1, 2)}},
        {"+tmt09-.2\r\n", {}},
        {"+tmt08-5.123\r\n", {.lm = "{\"N\":\"5\",\"S\":\"\",\"R\":\"12.3\"}"}},
        {"+tmt07-5.a\r\n+tmt08-5.7\r\n", {.lm = "{\"N\":\"5\",\"S\":\"a\",\"R\":\"0.7\"}"}},
        {"+tmt12-*150\r\n", {.t = "-150"}},
        {"+tmt12-!7\r\n", {.t = "7"}},
        {"+tmt12-21\r\n", {.t = "21"}},
        {"+tmt16-0\r\n", {.date = "01.01.1970", .time = "00:00:00"}},
        {"+tmt16-1600000000\r\n", {.date = "13.09.2020", .time = "12:26:40"}},
        {"+tmt01-sim2\r\n+tmt03-75\r\n+tmt13-12.50\r\n+tmt14-1\r\n+tmt15-abc\r\n",
         {.sim = "sim2", .gsm = "75%", .balance = "12", .learnkey = "1", .ident = "abc"}},
        {"+tmt05-1.12.\xc1\xe0\xf2.x\r\n", {.power_mode = "1", .power_value = "12", .power_ext = "Бат.x"}},
        {"+tmt06-2.b\r\n+tmt06-1.a\r\n+tmt06-3.\r\n+tmt06-1.c\r\n",
         {.part = "{\"N\":\"1\",\"S\":\"c\"},{\"N\":\"2\",\"S\":\"b\"}"}},
        {"+tmt11-x.1\r\n+tmt11-4.0\r\n", {.ok = "{\"N\":\"0\",\"S\":\"1\"},{\"N\":\"4\",\"S\":\"0\"}"}},
        {"+tmt17-host.8080\r\n", {.ip = "host", .port = "8080"}},
        {"+tmt02-1.2\r\n+tmt18-1\r\nno dash\r\n+tmt04-1", {}},
        {"+tmt04-1\n+tmt04-1\r", {}},
        {"+tmt00-1.md05\r\n", {.devtype = "MD05", .status = "3", .modem = "0"}},
        {"+tmt00-0.md19\r\n", {.devtype = "MD19", .modem = "0", .lm = resistances("3.0")}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.lines);
        SetUp();
        telemetry(c.lines);
        EXPECT_EQ(json(), status_json(c.expect));
    }
}

TEST_F(StatusTest, DevtypeInOtherCaseDoesNotReinitialise) {
    telemetry("+tmt00-1.md14\r\n");
    EXPECT_EQ(parser.cfg["td"], std::make_pair(std::string("td"), std::string("MD14")));
    EXPECT_EQ(parser.status_dev.lm.size(), 128u);
    json();  // upper-cases the stored type in place
    parser.status_dev.lm.clear();
    parser.cfg.clear();
    telemetry("+tmt00-1.md14\r\n");
    EXPECT_TRUE(parser.status_dev.lm.empty());
    EXPECT_TRUE(parser.cfg.empty());
    telemetry("+tmt00-1.md15\r\n");
    EXPECT_EQ(parser.status_dev.lm.size(), 128u);
    EXPECT_EQ(parser.cfg["td"].second, "MD15");
}

TEST_F(StatusTest, ModeDecidesTheReadyFlagAndStatus) {
    struct Case {
        int status_before;
        bool ready_before;
        std::string lines;
        int status_parsed;  // after parse_tmt alone
        int status_after;   // after tmt_to_status_dev
        bool ready_after;
    };
    const Case cases[] = {
        {3, true, "+tmt00-0\r\n", 1, 2, false}, {5, true, "+tmt00-2.md19\r\n", 1, 2, false},
        {1, false, "+tmt00-1\r\n", 1, 3, true}, {2, false, "+tmt00-1\r\n", 2, 3, true},
        {5, false, "+tmt00-1\r\n", 5, 5, true}, {1, false, "+tmt04-1\r\n", 1, 2, false},
        {1, true, "+tmt04-1\r\n", 1, 3, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.status_before) + " " + c.lines);
        parser.status_dev.status = c.status_before;
        parser.ready = c.ready_before;
        std::vector<unsigned char> reply = bytes_of("0000L" + c.lines);
        EXPECT_EQ(parser.parse_tmt(reply, 5), 0);
        EXPECT_EQ(parser.get_status(), c.status_parsed);
        parser.tmt_to_status_dev();
        EXPECT_EQ(parser.get_status(), c.status_after);
        EXPECT_EQ(parser.ready.load(), c.ready_after);
    }
}

TEST_F(StatusTest, FieldsKeepTheirLastValueUntilCleared) {
    telemetry("+tmt04-1\r\n+tmt10-0.1\r\n");
    telemetry("+tmt12-5\r\n");
    EXPECT_EQ(json(), status_json({.server = "ON", .tamper = "OFF", .t = "5"}));
    parser.set_ready_text(&StatusDevice::rupd, "2");
    parser.clear();
    parser.status_dev.com.clear();
    EXPECT_EQ(json(), status_json({.status = "1"}));
}

TEST_F(StatusTest, StatusTenDependsOnPortAndReadyFlag) {
    struct Case {
        bool port_open;
        bool ready;
        int status;
    };
    const Case cases[] = {{false, false, 10}, {false, true, 10}, {true, false, 2}, {true, true, 3}};
    for (const Case& c : cases) {
        PtyPort port;
        if (!c.port_open) USB = 0;
        parser.ready = c.ready;
        parser.set_status_10();
        EXPECT_EQ(parser.get_status(), c.status) << c.port_open << c.ready;
        EXPECT_EQ(parser.ready.load(), c.ready);
    }
}

TEST_F(StatusTest, StatusBelowThreeClearsTheReadyFlag) {
    for (int s : {0, 1, 2, 3, 4, 8, 11}) {
        parser.ready = true;
        parser.set_status(s);
        EXPECT_EQ(parser.get_status(), s);
        EXPECT_EQ(parser.ready.load(), s >= 3) << s;
    }
}

TEST_F(StatusTest, TelemetryReplyIsAcknowledgedAndShown) {
    PtyPort port;
    ASSERT_TRUE(port.ok());
    std::string body = "+tmt00-1.md01\r\n+tmt04-1\r\n";
    char digits[8];
    snprintf(digits, sizeof digits, "0%03zu", body.size() + 5);
    std::vector<unsigned char> pkt = bytes_of(digits + std::string("L") + body);
    parser.parse_packet(pkt);
    EXPECT_EQ(port.read_all(), kReceiptOK);
    EXPECT_EQ(json(), status_json({.devtype = "MD01", .status = "3", .server = "ON", .modem = "0"}));
}

// The HTTP thread renders the status and reads the texts while the device
// thread converts telemetry and writes them; run under ThreadSanitizer.
TEST_F(StatusTest, StatusIsReadSafelyWhileTelemetryArrives) {
    std::atomic<bool> done{false};
    pthread_t device;
    auto device_thread = [](void* arg) -> void* {
        auto* finished = static_cast<std::atomic<bool>*>(arg);
        for (int i = 0; i < 300; ++i) {
            std::vector<unsigned char> reply = bytes_of("0000L+tmt00-" + std::to_string(i % 2) +
                                                        ".md19\r\n+tmt08-1." + std::to_string(i) + "\r\n");
            parser.parse_tmt(reply, 5);
            parser.tmt_to_status_dev();
            parser.set_ready_text(&StatusDevice::msg, std::to_string(i));
            if (i % 50 == 0) parser.clear();
        }
        *finished = true;
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&device, nullptr, device_thread, &done), 0);
    int renders = 0;
    while (!done || renders == 0) {
        std::string out;
        parser.status_to_json(out);
        EXPECT_EQ(out.rfind("{\"result\":{\"devtype\":\"", 0), 0u);
        EXPECT_FALSE(parser.get_ready_text(&StatusDevice::msg).empty());
        parser.status_dev.get_ports();
        ++renders;
    }
    pthread_join(device, nullptr);
    EXPECT_EQ(parser.get_ready_text(&StatusDevice::msg), "299");
}

}  // namespace
