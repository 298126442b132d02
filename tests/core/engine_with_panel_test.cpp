// The whole engine against the simulated panel: connect, live status, access
// password, disconnect and exit, through the program's own HTTP interface.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <regex>

#include "panel_sim.h"
#include "support/engine_harness.h"

using namespace harness;

const std::string ok_body = R"({"result":"ok","description":""})";
const std::string continue_body = R"({"result":"continue","description":""})";
const std::string error_answer =
    "HTTP/1.1 200 OK\r\nConnection: close\r\nAccess-Control-Allow-Origin: *\r\n"
    "Content-Type: application/javascript; charset=utf-8\r\nContent-Length: 35\r\n\r\n"
    R"({"result":"error","description":""})";
const std::string ok_answer =
    "HTTP/1.1 200 OK\r\nConnection: close\r\nAccess-Control-Allow-Origin: *\r\n"
    "Content-Type: application/javascript; charset=utf-8\r\nContent-Length: 32\r\n\r\n" +
    ok_body;

// The status of the simulated panel (clock 1700000000, two expanders of 32 present),
// with an empty port list.
static std::string expected_status() {
    std::string ext = R"({"N":"1","S":"1","T":""},{"N":"2","S":"1","T":""})";
    for (int i = 3; i <= 32; ++i) ext += R"(,{"N":")" + std::to_string(i) + R"(","S":"0","T":""})";
    return R"({"result":{"devtype":"MS02","status":"3","statusready":{"rcfg":"0","rmsg":"0","rlog":"0",)"
           R"("rupd":"0"},"progress":{"cfg":"0","msg":"0","log":"0","logmax":"0","upd":"0"},"update":false,)"
           R"("com":[],"sim":"1","gsm":"87%","server":"ON","power_mode":"1","power_value":"13",)"
           R"("power_ext":"8.ok","tamper":"OFF","t":"23","balance":"","modem":"0","xcpu":"","learnkey":"",)"
           R"("part":[{"N":"1","S":"1"},{"N":"2","S":"0"}],"ext":[)" +
           ext +
           R"(],"ok":[{"N":"1","S":"1"},{"N":"2","S":"0"}],"lm":[{"N":"1","S":"1","R":"12.3"},)"
           R"({"N":"2","S":"0","R":"0.0"}],"ident":"","date":"14.11.2023","time":"22:13:20",)"
           R"("temp_server":{"ip":"","port":""}}})";
}

// A running engine in a scratch directory, connected to a simulated panel.
class EngineWithPanel : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::copy_file(std::string(VORCORE_SOURCE_DIR) + "/data/cipher-test.txt",
                                   dir_.path() + "/cipher.txt");
        PanelSimOptions options{.make_link = false, .telemetry_ms = 300};
        options.content.clock = 1700000000;  // 14.11.2023 22:13:20 UTC
        panel_ = std::make_unique<PanelSim>(options);
        ASSERT_TRUE(panel_->start()) << panel_->error();
        engine_ = std::make_unique<EngineProcess>(dir_);
        ASSERT_NE(engine_->port(), 0) << engine_->console();
        ASSERT_EQ(get("cmd=11&com=" + panel_->slave_path()), ok_answer);
    }

    std::string get(const std::string& query) {
        return engine_->request(local_get(engine_->port(), "/tuning/device?id=-1&" + query));
    }

    // The body of the status answer, polled (bounded) until it contains `fragment`, with
    // the machine's port list emptied.
    std::string status_with(const std::string& fragment, double seconds) {
        std::string status;
        wait_for([&] { return (status = get("statusdevice")).find(fragment) != std::string::npos; }, seconds);
        status = std::regex_replace(status, std::regex(R"("com":\[[^\]]*\])"), R"("com":[])");
        size_t body = status.find("\r\n\r\n");
        return body == std::string::npos ? status : status.substr(body + 4);
    }

    // The exit query ends the program with status 0; returns its console without stamps.
    std::string exit_cleanly() {
        EXPECT_EQ(get("exit"), ok_answer);
        int status = -1;
        EXPECT_TRUE(engine_->wait_exit(5, status));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        EXPECT_FALSE(engine_->sanitizer_reported()) << engine_->errors();
        return without_stamps(engine_->console());
    }

    TempDir dir_;
    // Members end in reverse order: the engine is killed (if still running) before its panel stops.
    std::unique_ptr<PanelSim> panel_;
    std::unique_ptr<EngineProcess> engine_;
};

TEST_F(EngineWithPanel, ConnectShowsLiveTelemetryThenDisconnectAndExit) {
    EXPECT_EQ(status_with(R"("status":"3")", 10), expected_status());

    // The access password travels encrypted; the browser repeats it with "&continue"
    // until the panel's receipt gives a final answer: its plain receipt accepts it,
    // "AN3" refuses it.
    auto password = [&](const std::string& pass) {
        std::string answer = get("cmd=12&pass=" + pass);
        if (ends_with(answer, continue_body))
            wait_for(
                [&] { return !ends_with(answer = get("cmd=12&pass=" + pass + "&continue"), continue_body); },
                5);
        return answer;
    };
    PanelContent content = PanelContent::standard();
    content.clock = 1700000000;
    content.reject_password = true;
    panel_->set_content(content);
    EXPECT_EQ(password("0000"), error_answer);
    content.reject_password = false;
    panel_->set_content(content);
    EXPECT_EQ(password("1234"), ok_answer);

    EXPECT_EQ(get("cmd=11"), ok_answer);
    EXPECT_NE(status_with(R"("status":"1")", 3).find(R"("devtype":"")"), std::string::npos);
    std::string console = exit_cleanly();
    std::regex closed_in_order(R"(Open device \([\s\S]*\nClose device \n([\s\S]*\n)?close listen socket\n$)");
    EXPECT_TRUE(std::regex_search(console, closed_in_order)) << console;
}

TEST_F(EngineWithPanel, PanelThatHangsUpLeavesTheEngineServing) {
    status_with(R"("status":"3")", 10);
    panel_->hangup();
    EXPECT_NE(status_with(R"("status":"1")", 5).find(R"("status":"1")"), std::string::npos)
        << engine_->console();
    exit_cleanly();
}
