// The configuration image: panel lines into the map, settings from the browser
// and from files, frames to the panel, model id. The whole program's test shows
// every key family's JSON and the common cases end to end.
#include <gtest/gtest.h>

#include <tuple>

#include "core/mutex_lock.h"
#include "link/link_test_support.h"

namespace {

using namespace link_test;

// The map as "map key=key:value;" entries, then the received keys.
std::string image() {
    std::string out;
    for (const auto& [map_key, entry] : parser.cfg)
        out += map_key + "=" + entry.first + ":" + entry.second + ";";
    out += "|";
    for (const std::string& key : parser.cfg_keys) out += key + ",";
    return out;
}

std::string to_send() {
    std::string out;
    for (const auto& [key, value] : parser.cfg_send) out += key + "=" + value + ";";
    return out;
}

struct Config : testing::Test {
    void SetUp() override { parser.clear(); }
};

TEST_F(Config, PanelLinesFillTheMapAndCountProgress) {
    // Status before; reply; map and keys; lines counted, progress, status, update, sv, cs1; console.
    const std::tuple<int, std::string, std::string, std::string, std::string> cases[] = {
        {3, "ks1:3-07", "ks001=ks1:07;ks002=ks2:07;ks003=ks3:07;|ks1,ks2,ks3,", "1 0 3 true  ", ""},
        {3, "ZN7-ab-cd\n-5\nSV\nhello", "zn007=zn7:ab-cd;|zn7,", "3 0 3 true  ",
         "@ Ключ SV не содержит значение\n@ Ключ hello не содержит значение\n"},
        // A CR without LF stays in the line, then leaves key and value; the last line needs no end.
        {4, "a\rb-c\rd", "ab=ab:cd;|ab,", "1 0 4 false  ", ""},
        // Ranges: the first digit may follow the colon; reversed ones store nothing, nor do ones over
        // 1000 keys or with bounds beyond the image (which could never end), with a console line.
        {3, "ab:5-1\r\nzn9:3-1\r\nxy:z-1\r\nzn0:1000-2\r\nzn1:2-3\r\nA9223372036854775807:9223372036854775807-1",
         "ab:005=ab:5:1;zn001=zn1:3;zn002=zn2:3;|ab:5,zn1,zn2,", "6 0 3 true  ",
         "@ parse cfg: range zn0:1000 not expanded: beyond the limits of the image\n"
         "@ parse cfg: range a9223372036854775807:9223372036854775807 not expanded: beyond the limits of the "
         "image\n"},
        {4, "bc-0\r\nSVMS02 v3\r\ncs1-12\r\nbc-x", "bc=bc:x;cs001=cs1:12;sv=sv:MS02 v3;|bc,cs1,sv,",
         "4 0 4 false MS02 v3 12", ""},
        {4, "bc-1\r\nzn1-1\r\nzn2-2", "bc=bc:1;zn001=zn1:1;zn002=zn2:2;|bc,zn1,zn2,", "3 300 4 false  ", ""},
    };
    for (const auto& [status, payload, map, state, printed] : cases) {
        SetUp();
        parser.set_status(status);
        const std::string body = packet('F', payload);
        std::vector<unsigned char> pkt(body.begin(), body.end());
        EXPECT_EQ(printed, printed_by([&] { parser.parse_cfg(pkt, 5); })) << payload;
        EXPECT_EQ(map, image()) << payload;
        EXPECT_EQ(state, std::to_string(parser.cfg_count) + " " + parser.status_dev.progress_cfg + " " +
                             std::to_string(parser.get_status()) + " " + parser.status_dev.update + " " +
                             parser.cfg_sv + " " + parser.cfg_cs1)
            << payload;
    }
    for (auto [key, map_key] :
         {std::pair{"zn5", "zn005"}, {"ks001", "ks001"}, {"a1b2", "ab012"}, {"x1234", "x1234"}})
        EXPECT_EQ(map_key, parser.sort_fit(key));
}

TEST_F(Config, EmptyListsAKeyWhoseSettingIsGoneAndLineEndsInFreeText) {
    std::string out, mask = "n1";
    parser.cfg_to_json(out);
    EXPECT_EQ(R"({"result":{"config":[ ]}})", out);
    parser.mask_to_json(mask, out);
    EXPECT_EQ(R"({"result":{"config":[ ]}})", out);
    parser.cfg_keys.insert("zz9");
    parser.update_cfg_to_json(out);
    EXPECT_EQ(R"({"result":[ {"key":"","subvalues":[{"value":"","index":1}]}]})", out);
    EXPECT_EQ("zz009=:;|", image());                // the look-up leaves an empty entry
    parser.key_to_js(out = "", {"sr1", "a\r\nb"});  // no reader keeps a line end; free text drops one
    EXPECT_EQ(element("sr1", {"ab"}), out);
}

TEST_F(Config, BrowserJsonSetsChangedSettingsByFamily) {
    auto config = [](const std::string& elements) { return R"({"config":[)" + elements + "]}"; };
    const std::string zn2 = element("zn2", {"1"});
    // JSON; what is to be sent afterwards; console.
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {config(element("zn1", {"1", "0"})), "zn1=1.0;", ""},
        {config(element("ua1", {"3", "1234", "7"}) + "," + element("ua2", {"1", "1234", "7"}) + "," +
                element("ss1", {"Hall", "2"}) + "," + element("wa1", {"Door", "5", "0"}) + "," +
                element("sr1", {R"(a\"b)"}) + "," + element("zn4", {"a", "b", "c", "d"}) +
                R"(,{"key":"hs","subvalues":[]},)" + element("ws", {"Привет"})),
         "sr1=a\"b;ss1=\"Hall\".2;ua1=*1234.7;ua2=1234.7;wa1=Door.5.0;ws=" + cp1251("Привет") +
             ";zn4=a.b.c.d;",
         ""},
        {"{\"config\":" + zn2, "", ""},
        {config(element("a1", {"1"})) + " " + config(element("b1", {"2"})), "b1=2;", ""},
        {config(R"({"key":"zn1"},)" + zn2), "", ""},
        {config(element("zn1", {"a~b"}) + "," + element("z-1", {"1"}) + "," + zn2), "zn2=1;",
         "@ json to cfg: refused zn1: text that cannot be sent to the panel\n"
         "@ json to cfg: refused z-1: text that cannot be sent to the panel\n"},
    };
    for (auto [json, sent, printed] : cases) {
        SetUp();
        EXPECT_EQ(printed, printed_by([&] { parser.json_to_cfg(json); })) << json;
        EXPECT_EQ(sent, to_send()) << json;
    }
    EXPECT_EQ("zn002=zn2:1;|", image());
}

TEST_F(Config, FilesAreReadAndWrittenLineByLine) {
    std::string file = "Vorlane-Site 1\r\nfe\r\nks2-22\r\nsv3.1\r\nvc-70\r\nZN1-5\r\nbad\r\na\nb-1\r\n";
    file += std::string("\0zn2-6\r\nx-y\rz\r\nlast-1", 21);
    parser.file_to_cfg(file);
    EXPECT_EQ(
        "!!=!!:;a\nb=a\nb:1;ks001=ks1:22;ks002=ks2:22;sv=sv:3.1;td=td:MS02;vc=vc:70;vorlane=vorlane:Site 1;"
        "x=x:yz;zn001=zn1:5;zn002=zn2:6;|sv,",
        image());
    EXPECT_EQ("a\nb=1;ks2=22;vc=70;vorlane=Site 1;x=yz;zn1=5;zn2=6;", to_send());
    std::string out;
    parser.cfg_to_file(out);
    EXPECT_EQ(
        "Vorlane-Site 1\r\nfe\r\nks2-22\r\nks1-22\r\n!!-\r\na\nb-1\r\nsv-3.1\r\ntd-MS02\r\nvc-70\r\nx-yz\r\n"
        "zn1-5\r\nzn2-6\r\n",
        out);
    file = "zn1-5\nzn2-6\r\n";  // lines ending in LF alone make one long line
    parser.file_to_cfg(file);
    const std::string loaded = image();
    std::string snapshot;
    {
        MutexLock lock(http_mutex);
        parser.cfg_file_text(snapshot);
    }
    EXPECT_EQ(loaded, image());  // a snapshot leaves the map as it is; a download adds "vorlane"
    parser.cfg_to_file(out);
    EXPECT_EQ("Vorlane-Configurator engine 5.2.22\r\nfe\r\n!!-\r\nzn1-5zn2-6\r\n", out);
    EXPECT_EQ(snapshot, out);
    EXPECT_EQ("!!=!!:;ks001=ks1:;ks002=ks2:;vorlane=:;zn001=zn1:5zn2-6;|sv,", image());
}

TEST_F(Config, SettingsLeaveInFramesOfWholeLinesThenTheEndCommand) {
    auto frames = [] {
        Strings out;
        parser.cfg_to_dev();
        for (std::vector<char> frame; queue.get_copy(frame); queue.pop())
            out.emplace_back(frame.begin(), frame.end());
        return out;
    };
    queue.clear();
    EXPECT_EQ(Strings{}, frames());
    // A line that would overflow the frame starts the next one; one that fits no
    // frame, or would break it, is left out.
    parser.cfg_send = {{"a", std::string(246, 'a')},
                       {"b", std::string(296, 'b')},
                       {"c", std::string(600, 'c')},
                       {"d", "x~y"}};
    Strings got;
    EXPECT_EQ(
        "@ cfg to dev: c left out: it does not fit a text frame\n"
        "@ cfg to dev: d left out: it does not fit a text frame\n",
        printed_by([&] { got = frames(); }));
    EXPECT_EQ((Strings{"~0255Fa-" + std::string(246, 'a') + "\r\n\x7f",
                       "~0305Fb-" + std::string(296, 'b') + "\r\n\x7f", "~0007FEC\x7f"}),
              got);
}

TEST_F(Config, ModelIdComesFromTheCodeOrTheShapeAndResistanceFromTheModel) {
    using Cfg = decltype(parser.cfg);
    auto entries = [](std::initializer_list<const char*> keys) {
        Cfg cfg;
        for (const char* key : keys) cfg[key] = {key, "1"};
        return cfg;
    };
    Cfg md01_shape = entries(
        {"lm001", "lm002", "lm003", "lm004", "rm001", "rm002", "rm003", "rm004", "zn001", "ga001", "ie"});
    md01_shape["vc"] = {"vc", "999"};  // an unknown code falls back to the shape
    // Configuration, result, td after.
    const std::tuple<Cfg, int, std::string> cases[] = {
        {{{"vc", {"vc", "84"}}}, 1, "MD01"},
        {md01_shape, 0, "MD01"},
        {entries({"lm001", "lm002", "lm003", "lm004", "rm001", "yz001", "ga001"}), 0, "MD23"},
        {entries({"zz"}), 0, "old"},
    };
    for (const auto& [cfg, result, td] : cases) {
        parser.cfg = cfg;
        parser.cfg["td"] = {"td", "old"};
        EXPECT_EQ(result, parser.reconstruct_td());
        EXPECT_EQ(td, parser.cfg["td"].second);
    }
    for (auto [model, ohms] : {std::pair{"MD01", "5.1"}, {"MD10", "5.1"}, {"md01", "3.0"}, {"MD11", "3.0"}}) {
        std::string text = model;
        EXPECT_EQ(ohms, parser.set_sens_resistance(text)) << model;
    }
}

}  // namespace
