// The configuration through the whole program: read from the simulated panel,
// shown as JSON, downloaded, uploaded, loaded from a model file or a ".cry"
// file, edited and written back, over the engine's own HTTP interface.
#include <ctime>
#include <fstream>
#include <map>
#include <set>

#include "support/engine_fixture.h"

using namespace harness;

namespace {

using EngineConfig = EngineTest;

// Lines fed through the real reader come back as the golden JSON byte for byte,
// every key family with its edge cases; the progress figure rises while reading;
// a change at the panel's keyboard raises the update flag and is fetched alone.
TEST_F(EngineConfig, PanelLinesShowAsJsonWithProgressMaskAndUpdates) {
    ASSERT_NO_FATAL_FAILURE(connect());
    panel().set_silent(true);  // the test speaks for the panel
    ASSERT_EQ(get("cmd=32"), ok_body);
    ASSERT_TRUE(wait_for([&] { return written().ends_with("~0010FCF-11\x7f"); }, 5));
    panel().send_frame('A', "");
    panel().send_frame('F', "bc-28\r\nzn1-1.0.25\r\nzn2:3-5\r\nrl1-12\r\nrla-1.2\r\nss1-\"Hall\".2\r\n" +
                                cp1251("wa1-\"Дверь\",5,0\r\n") +
                                "ua1-*1234.7\r\nzn5-1..2.\r\nzn6-a\x96"
                                "b\x98"
                                "c\r\nua3-?9.\r\nua4-@5.1\r\nua5-1.2.3\r\nua-1.2\r\n");
    EXPECT_TRUE(status_shows({R"("status":"4")", R"("progress":{"cfg":"50")"}));
    panel().send_frame('F', "hs-1.2.3\r\n" + cp1251("ws-Привет \"1\"\r\n") + "wk-a\\b\r\nvorlane-1.2\r\n" +
                                cp1251("sr1-Склад\r\n") +
                                "sr2-a\"b\\\r\nSVMS02 v3.14\r\nZN10-7\r\nwa2-\"A\\\"B\",1\r\nwa4-Door,1,2\r\n"
                                "ss2-Hall.2\r\nss3-\"Hall\r\nss4-\"a\\\"b\".x.y\r\nec-0\r\n");
    EXPECT_TRUE(status_shows({R"("status":"3")", R"("progress":{"cfg":"100")"}));
    panel().set_silent(false);  // its telemetry names the model again: "td"
    ASSERT_TRUE(status_shows({R"("devtype":"MS02")", R"("update":false)"}));

    EXPECT_EQ(get("configstate="), golden("config_read.json"));
    EXPECT_EQ(get("configstate=n1"), config_list({element("zn1", {"1", "0", "25"}), element("zn10", {"7"})}));

    EXPECT_EQ(0u, get("updatestatus").find(R"({"result":[ {"key":"bc","subvalues":)"));  // the read's keys
    panel().change_setting("zn2-9");
    EXPECT_TRUE(status_shows({R"("update":true)"}));
    EXPECT_EQ(get("updatestatus"), R"({"result":[ )" + element("zn2", {"9"}) + "]}");
    EXPECT_EQ(get("updatestatus"), R"({"result":[ ]})");
    EXPECT_TRUE(status_shows({R"("update":false)"}, 1));
    engine_->exit_cleanly();
}

// Read, download, upload, load a model file, edit, write: the panel receives
// exactly the settings to send, in frames of whole lines and the end command,
// and a fresh read shows the edits.
TEST_F(EngineConfig, RoundTripThroughFilesModelEditsAndWrite) {
    PanelSimOptions options{.make_link = false, .telemetry_ms = 300};
    options.content.config_lines = {"SVMS02 v3.14",     "td-MS02",   "zn1-5",
                                    "zn2:3-1",          "ks1-07",    cp1251("sr1-Склад"),
                                    cp1251("sr2-Ёлка"), "ua1-!12.3", cp1251("wa1-\"Дверь\",5,0")};
    ASSERT_NO_FATAL_FAILURE(connect(options));
    auto read_panel = [&] {
        return get("cmd=32") == ok_body && status_shows({R"("devtype":"MS02","status":"3")"});
    };
    ASSERT_TRUE(read_panel());
    const std::string file = "Vorlane-Configurator engine 5.2.22\r\nfe\r\nks1-07\r\n",
                      rest = "bc-10\r\nec-1\r\n" + cp1251("sr1-Склад\r\nsr2-Ёлка\r\n") +
                             "sv-MS02 v3.14\r\ntd-MS02\r\nua1-!12.3\r\n" + cp1251("wa1-\"Дверь\",5,0\r\n") +
                             "zn1-5\r\nzn2-1\r\nzn3-1\r\n";
    EXPECT_EQ(post("cmd=2", ""), file + rest);
    EXPECT_EQ(post("cmd=4&file=config.ini", browser_encoded(file + rest)), ok_body);
    EXPECT_EQ(post("cmd=2", ""), file + "!!-\r\n" + rest);  // "!!" completed on reading

    std::map<std::string, std::string> to_send = {{"vorlane", "Model MS02"},
                                                  {"ks2", "99"},
                                                  {"sr1", cp1251("Склад")},
                                                  {"td", "MS02"},
                                                  {"ua1", "1234.7"}};
    for (int zone = 1; zone <= 30; ++zone) to_send["zn" + std::to_string(zone)] = "0.0.1";
    std::string model = "Vorlane-Model MS02\r\nfe\r\n";
    for (const auto& [key, value] : to_send)
        if (key != "vorlane") model += key + "-" + value + "\r\n";
    std::filesystem::create_directory(dir_.path() + "/devs");
    std::ofstream(dir_.path() + "/devs/MS02.ini", std::ios::binary) << model;
    EXPECT_EQ(get("cmd=1&devtype=MS02"), ok_body);
    EXPECT_TRUE(status_shows({R"("status":"3")"}));

    const std::string sr1 = element("sr1", {R"(Дом \"2\")"}), ua1 = element("ua1", {"3", "1234", "7"}),
                      zn2 = element("zn2", {"3"});
    EXPECT_EQ(post("configset", R"({"config":[)" + zn2 + "," + ua1 + "," + sr1 + "]}"), ok_body);
    to_send["zn2"] = "3";
    to_send["ua1"] = "*1234.7";
    to_send["sr1"] = cp1251("Дом \"2\"");
    std::string frames = write_frames(to_send);
    panel().forget_received();
    EXPECT_EQ(get("cmd=31"), ok_body);
    EXPECT_TRUE(wait_for([&] { return written().ends_with("~0007FEC\x7f"); }, 15));
    EXPECT_EQ(written(), frames);
    EXPECT_TRUE(status_shows({R"("status":"3")"}));

    ASSERT_TRUE(read_panel());
    std::string config = get("configstate=");
    for (const std::string& edited : {zn2, ua1, sr1})
        EXPECT_NE(config.find(edited), std::string::npos) << edited;
    engine_->exit_cleanly();
}

// A model file loaded and edited with no panel connected is kept when the connect clears it; written
// from the history, only the settings that differ from the panel's go out, as the file holds them, and
// the panel reports every one of them when read back. Each kind of snapshot is listed with its name,
// date and time (UTC), model and count; a snapshot shows as its file does once uploaded.
TEST_F(EngineConfig, OfflinePreparedConfigurationIsKeptAndOnlyItsDifferencesWritten) {
    std::filesystem::create_directory(dir_.path() + "/devs");
    std::ofstream(dir_.path() + "/devs/MS02.ini", std::ios::binary)
        << "Vorlane-MS02 template\r\nfe\r\nks1-07\r\ntd-MS02\r\nvc-70\r\ncs1-1234\r\nrl1-1.30\r\n" +
               cp1251("ss1-\"Зона 1\".1\r\n") + "ua1-!12.3\r\nzn1-5\r\nzn2-5\r\nzn3-5\r\n";
    ASSERT_EQ(get("cmd=1&devtype=MS02"), ok_body);
    ASSERT_EQ(post("configset", R"({"config":[)" + element("zn1", {"7"}) + "]}"), ok_body);
    PanelSimOptions options{.make_link = false, .telemetry_ms = 300};
    options.content.config_lines = {"SVMS02 v3.14", "td-MS02",  "vc-70",      "zn1-5",   "zn2:3-1",
                                    "ks1-07",       "cs1-1234", "ws-Vorlane", "rl1-1.30"};
    ASSERT_NO_FATAL_FAILURE(connect(options));
    auto read_panel = [&] {
        return get("cmd=32") == ok_body && status_shows({R"("devtype":"MS02","status":"3")"});
    };
    ASSERT_TRUE(read_panel());
    const std::vector<Strings> listed = history();
    ASSERT_GE(listed.size(), 3u);
    const std::string prepared = listed.back()[0];  // the model file, then its edit kept at the connect
    EXPECT_EQ(listed.back()[1], "model");
    EXPECT_EQ(listed[listed.size() - 2][1], "kept");
    const std::string kept = listed[listed.size() - 2][0];

    const std::string image = get("configstate=");
    const std::string saved = get("historyconfig=" + kept);
    EXPECT_EQ(saved,
              config_list({element("!!", {""}), element("cs1", {"1234"}), element("ks1", {"07"}),
                           element("ks2", {""}), element("rl1", {"1", "30"}), element("ss1", {"Зона 1", "1"}),
                           element("td", {"MS02"}), element("ua1", {"2", "12", "3"}), element("vc", {"70"}),
                           element("vorlane", {"MS02 template"}), element("zn1", {"7"}),
                           element("zn2", {"5"}), element("zn3", {"5"})}));
    EXPECT_EQ(get("configstate="), image);
    EXPECT_TRUE(status_shows({R"("status":"3")"}, 1));

    panel().forget_received();
    EXPECT_EQ(get("historywrite=" + kept), ok_body);
    EXPECT_TRUE(wait_for([&] { return written().ends_with("~0007FEC\x7f"); }, 15));
    EXPECT_EQ(
        written(),
        write_frames(
            {{"ss1", cp1251("\"Зона 1\".1")}, {"ua1", "!12.3"}, {"zn1", "7"}, {"zn2", "5"}, {"zn3", "5"}}));
    const std::string wrote = newest("write");
    ASSERT_FALSE(wrote.empty());
    ASSERT_TRUE(read_panel());
    const std::string panel_now = get("configstate=");
    for (const char* key : {"ss1", "ua1", "zn1", "zn2", "zn3"})
        EXPECT_EQ(element_in(panel_now, key), element_in(saved, key)) << key;

    panel().forget_received();  // nothing differs any more: nothing goes out
    EXPECT_EQ(get("historywrite=" + wrote), ok_body);
    EXPECT_FALSE(wait_for([&] { return !written().empty(); }, 0.5)) << written();

    // The download of a snapshot, uploaded as a browser uploads files, shows as historyconfig does.
    const std::string file = get("historyfile=" + prepared);
    EXPECT_EQ(
        engine_->get("historyfile=" + prepared),
        answer_200("Content-Type: text/plain; charset=UTF-8\r\nContent-disposition: attachment; filename=" +
                       prepared + "\r\nContent-transfer-encoding: text\r\n",
                   file));
    EXPECT_EQ(post("cmd=4&file=config.ini", browser_encoded(file)), ok_body);
    EXPECT_EQ(get("configstate="), get("historyconfig=" + prepared));
    ASSERT_FALSE(newest("file").empty());

    std::set<std::string> kinds;
    const time_t now = time(nullptr);
    for (const Strings& snapshot : history()) {
        const std::string& name = snapshot[0];
        kinds.insert(snapshot[1]);
        EXPECT_TRUE(
            std::regex_match(name, std::regex(R"(\d{8}-\d{6}-\d{3}-)" + snapshot[1] + "-MS02\\.ini")));
        EXPECT_EQ(snapshot[2], name.substr(6, 2) + "." + name.substr(4, 2) + "." + name.substr(0, 4));
        EXPECT_EQ(snapshot[3], name.substr(9, 2) + ":" + name.substr(11, 2) + ":" + name.substr(13, 2));
        tm utc{};
        strptime((name.substr(0, 15)).c_str(), "%Y%m%d-%H%M%S", &utc);
        EXPECT_LT(std::abs(difftime(now, timegm(&utc))), 120) << name;
        EXPECT_EQ(snapshot[4], "MS02");
        const std::string bytes = get("historyfile=" + name);
        size_t settings = 0;
        for (size_t at = bytes.find("\r\n") + 2; at < bytes.size(); at = bytes.find("\r\n", at) + 2)
            settings += bytes.substr(at, bytes.find("\r\n", at) - at).find('-') != std::string::npos;
        EXPECT_EQ(snapshot[5], std::to_string(settings)) << name;
    }
    EXPECT_EQ(kinds, (std::set<std::string>{"file", "kept", "model", "read", "write"}));
    engine_->exit_cleanly();
}

// A ".cry" file opens with its password only; bad input leaves the engine up
// and the configuration as the refusal leaves it.
TEST_F(EngineConfig, CryFileAndBadInput) {
    std::string error;
    ASSERT_TRUE(load_cipher_file(VORCORE_SOURCE_DIR "/data/cipher-test.txt", error)) << error;
    auto cry = [](const std::string& plain, bool damage) {
        std::string payload = cry_payload(plain, "pw");
        payload[3] ^= damage;
        return "Vorlane CRY\r\n" + std::string(22, 'H') + payload;
    };
    const std::string zn1 = element("zn1", {"5"});
    EXPECT_EQ(post("cmd=4&file=config.ini", browser_encoded("zn1-5\r\n")), ok_body);
    EXPECT_EQ(get("configstate=zn"), config_list({zn1}));

    EXPECT_EQ(post("cmd=4&file=site.cry", browser_encoded(cry(cp1251("ws-Склад\r\nzn1-7\r\n"), false))),
              ok_body);
    EXPECT_TRUE(status_shows({R"("status":"11")"}, 2));
    EXPECT_EQ(get("cmd=12&pass=wrong"), error_body);
    EXPECT_EQ(get("configstate=zn"), config_list({zn1}));
    EXPECT_EQ(get("cmd=12&pass=pw"), ok_body);
    EXPECT_EQ(get("configstate=w"), config_list({element("ws", {"Склад"})}));

    EXPECT_EQ(post("cmd=4&file=bad.cry", browser_encoded(cry("zn1-9\r\n", true))), ok_body);
    EXPECT_EQ(get("cmd=12&pass=pw"), error_body);
    EXPECT_EQ(post("configset", R"({"config":[)" + element("zn2", {"1"}) +
                                    R"(,{"key":"zn3","subvalues":[{"value":"1","index":2}]}]})"),
              ok_body);
    EXPECT_EQ(post("configset", R"({"config":[{"key":"zn4","subvalues":[{"value":"1")"), ok_body);
    EXPECT_EQ(get("cmd=1&devtype=NOPE"), error_body);
    EXPECT_EQ(get("configstate=zn"), config_list({element("zn1", {"7"}), element("zn2", {"1"})}));
    const std::string console = stamps_marked(engine_->console());
    EXPECT_NE(console.find("@ json to cfg: wrong index\n"), std::string::npos) << console;
    EXPECT_NE(console.find("@ cmd 1: no read file devs/NOPE.ini\n"), std::string::npos) << console;
    engine_->exit_cleanly();
}

}  // namespace
