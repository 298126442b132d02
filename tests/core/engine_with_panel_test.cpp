// The whole engine against the simulated panel: connect, live status, access
// password, disconnect and exit, through the program's own HTTP interface.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "panel_sim.h"
#include "support/engine_harness.h"

namespace {

using namespace harness;

const std::string json_ok_answer =
    "HTTP/1.1 200 OK\r\nConnection: close\r\nAccess-Control-Allow-Origin: *\r\n"
    "Content-Type: application/javascript; charset=utf-8\r\nContent-Length: 32\r\n\r\n"
    "{\"result\":\"ok\",\"description\":\"\"}";

std::string body_of(const std::string& answer) {
    size_t blank = answer.find("\r\n\r\n");
    return blank == std::string::npos ? std::string() : answer.substr(blank + 4);
}

// The port list depends on the machine; everything else in the status is the panel's.
std::string without_port_list(const std::string& status) {
    return std::regex_replace(status, std::regex("\"com\":\\[[^\\]]*\\]"), "\"com\":[]");
}

class EngineWithPanel : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::copy_file(std::string(VORCORE_SOURCE_DIR) + "/data/cipher-test.txt",
                                   dir_.path() + "/cipher.txt");
        PanelSimOptions options;
        options.make_link = false;
        options.telemetry_ms = 300;
        options.content.clock = 1700000000;  // 14.11.2023 22:13:20 UTC
        panel_ = std::make_unique<PanelSim>(options);
        ASSERT_TRUE(panel_->start()) << panel_->error();
        engine_ = std::make_unique<EngineProcess>(dir_);
        ASSERT_NE(engine_->port(), 0) << engine_->console();
    }

    void TearDown() override {
        engine_.reset();
        panel_->stop();
    }

    std::string get(const std::string& query) {
        return engine_->request(local_get(engine_->port(), "/tuning/device?id=-1&" + query));
    }

    // Polls the status query (bounded) until it contains `fragment`.
    std::string status_with(const std::string& fragment, double seconds) {
        std::string status;
        wait_for(
            [&] {
                status = body_of(get("statusdevice"));
                return status.find(fragment) != std::string::npos;
            },
            seconds);
        return status;
    }

    TempDir dir_;
    std::unique_ptr<PanelSim> panel_;
    std::unique_ptr<EngineProcess> engine_;
};

TEST_F(EngineWithPanel, ConnectShowsLiveTelemetryThenDisconnectAndExit) {
    EXPECT_EQ(get("cmd=11&com=" + panel_->slave_path()), json_ok_answer);

    std::string status = status_with("\"status\":\"3\"", 10);
    EXPECT_EQ(
        without_port_list(status),
        "{\"result\":{\"devtype\":\"MS02\",\"status\":\"3\","
        "\"statusready\":{\"rcfg\":\"0\",\"rmsg\":\"0\",\"rlog\":\"0\",\"rupd\":\"0\"},"
        "\"progress\":{\"cfg\":\"0\",\"msg\":\"0\",\"log\":\"0\",\"logmax\":\"0\",\"upd\":\"0\"},"
        "\"update\":false,\"com\":[],"
        "\"sim\":\"1\",\"gsm\":\"87%\",\"server\":\"ON\",\"power_mode\":\"1\",\"power_value\":\"13\","
        "\"power_ext\":\"8.ok\",\"tamper\":\"OFF\",\"t\":\"23\",\"balance\":\"\",\"modem\":\"0\",\"xcpu\":"
        "\"\","
        "\"learnkey\":\"\","
        "\"part\":[{\"N\":\"1\",\"S\":\"1\"},{\"N\":\"2\",\"S\":\"0\"}],"
        "\"ext\":[" +
            [] {
                std::string ext;
                for (int i = 1; i <= 32; ++i) {
                    if (i > 1) ext += ",";
                    ext += "{\"N\":\"" + std::to_string(i) + "\",\"S\":\"" + (i <= 2 ? "1" : "0") +
                           "\",\"T\":\"\"}";
                }
                return ext;
            }() +
            "],"
            "\"ok\":[{\"N\":\"1\",\"S\":\"1\"},{\"N\":\"2\",\"S\":\"0\"}],"
            "\"lm\":[{\"N\":\"1\",\"S\":\"1\",\"R\":\"12.3\"},{\"N\":\"2\",\"S\":\"0\",\"R\":\"0.0\"}],"
            "\"ident\":\"\",\"date\":\"14.11.2023\",\"time\":\"22:13:20\","
            "\"temp_server\":{\"ip\":\"\",\"port\":\"\"}}}");

    // The access password travels encrypted; the panel's plain receipt accepts it.
    std::string first = body_of(get("cmd=12&pass=1234"));
    EXPECT_TRUE(first == "{\"result\":\"continue\",\"description\":\"\"}" ||
                first == "{\"result\":\"ok\",\"description\":\"\"}")
        << first;
    std::string answer;
    wait_for(
        [&] {
            answer = body_of(get("cmd=12&pass=1234&continue"));
            return answer != "{\"result\":\"continue\",\"description\":\"\"}";
        },
        5);
    EXPECT_EQ(answer, "{\"result\":\"ok\",\"description\":\"\"}");

    EXPECT_EQ(get("cmd=11"), json_ok_answer);
    EXPECT_NE(status_with("\"status\":\"1\"", 3).find("\"devtype\":\"\""), std::string::npos);

    EXPECT_EQ(get("exit"), json_ok_answer);
    int status_code = -1;
    ASSERT_TRUE(engine_->wait_exit(5, status_code));
    EXPECT_TRUE(WIFEXITED(status_code) && WEXITSTATUS(status_code) == 0);
    std::string console = without_stamps(engine_->console());
    EXPECT_NE(console.find("Open device ("), std::string::npos) << console;
    EXPECT_NE(console.find("Close device \n"), std::string::npos) << console;
    EXPECT_TRUE(ends_with(console, "close listen socket\n")) << console;
    EXPECT_FALSE(engine_->sanitizer_reported()) << engine_->errors();
}

TEST_F(EngineWithPanel, PanelThatHangsUpLeavesTheEngineServing) {
    EXPECT_EQ(get("cmd=11&com=" + panel_->slave_path()), json_ok_answer);
    status_with("\"status\":\"3\"", 10);
    panel_->hangup();
    std::string status = status_with("\"status\":\"1\"", 5);
    EXPECT_NE(status.find("\"status\":\"1\""), std::string::npos) << engine_->console();
    EXPECT_EQ(get("exit"), json_ok_answer);
    int status_code = -1;
    ASSERT_TRUE(engine_->wait_exit(5, status_code));
    EXPECT_TRUE(WIFEXITED(status_code) && WEXITSTATUS(status_code) == 0);
}

}  // namespace
