// The snapshot store: the name form, and the folder it keeps (in this process, a scratch
// directory). What the whole program does with snapshots the engine tests show.
#include "model/history.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <set>

#include "core/engine.h"
#include "core/mutex_lock.h"
#include "support/engine_harness.h"

namespace {

using namespace harness;

TEST(HistoryNames, FormStampKindModelAndCount) {
    const std::pair<std::string, bool> names[] = {
        {"20261124-163415-120-read-MS02.ini", true},
        {"20261124-163415-120-kept.ini", true},
        {"99999999-999999-999-write-ABCDEFGHIJKLMNOP.ini", true},  // digits are not range-checked
        {"20261124-163415-120-write-ABCDEFGHIJKLMNOPQ.ini", false},
        {"20261124-163415-120-read-ms02.ini", false},
        {"20261124-163415-120-read-.ini", false},
        {"20261124-163415-120-other.ini", false},
        {"20261124-163415-12-read.ini", false},
        {"2026112a-163415-120-read.ini", false},
        {"20261124-163415-120-read.ini.bak", false},
        {"../20261124-163415-120-read.ini", false},
        {"20261124-163415-120-read-MS/2.ini", false},
    };
    for (const auto& [name, valid] : names) EXPECT_EQ(valid, is_snapshot_name(name)) << name;

    const int64_t at = 1795538055120;  // 24.11.2026 16:34:15.120 UTC
    EXPECT_EQ("20261124-163415-120-read-MS02.ini", snapshot_name(at, SnapshotKind::read, "ms02"));
    EXPECT_EQ("20261124-163415-121-kept.ini", snapshot_name(at + 1, SnapshotKind::kept, "-/ "));
    EXPECT_EQ("20261124-163416-000-model-AB0CDEFGHIJKLMNO.ini",
              snapshot_name(at + 880, SnapshotKind::model, "a-b0.c/defghijklmnopqrstuvw"));
    EXPECT_EQ(2u, snapshot_settings("Vorlane-x\r\nfe\r\nzn1-5\r\nSV1\r\nbad\r\nks1-07\r\n"));
}

// Snapshots taken in one millisecond get stamps of their own; one equal to the newest and one of
// an empty image are not written; the index built again from the folder lists the same.
TEST(HistoryStore, StampsAreUniqueAndRepeatsAreNotWritten) {
    TempDir dir;
    parser.clear();
    ASSERT_TRUE(history_open(dir.path() + "/history", getuid(), getgid()));
    auto set_zone = [](const std::string& value) {
        MutexLock lock(http_mutex);
        parser.cfg["zn001"] = {"zn1", value};
        parser.cfg["td"] = {"td", "ms02"};
    };
    for (int i = 0; i < 5; ++i) {
        set_zone(std::to_string(i));
        history_take(SnapshotKind::model);
    }
    history_take(SnapshotKind::kept);  // the same bytes as the newest
    {
        MutexLock lock(http_mutex);
        parser.cfg.clear();
    }
    history_take(SnapshotKind::kept);
    const std::string listed = history_json();
    std::set<std::string> stamps;
    const std::regex entry(R"re(\{"name":"((\d{8}-\d{6}-\d{3})-model-MS02\.ini)","kind":"model")re");
    for (std::sregex_iterator it(listed.begin(), listed.end(), entry), end; it != end; ++it)
        stamps.insert((*it)[2]);
    EXPECT_EQ(stamps.size(), 5u) << listed;
    EXPECT_EQ(std::distance(
                  std::filesystem::directory_iterator(dir.path() + "/history/" + std::to_string(getuid())),
                  std::filesystem::directory_iterator()),
              5);

    std::string bytes;
    const size_t at = listed.find("\"name\":\"") + 8;
    const std::string newest = listed.substr(at, listed.find('"', at) - at);
    ASSERT_TRUE(history_read(newest, bytes)) << newest;
    EXPECT_EQ(bytes, "Vorlane-Configurator engine 5.2.22\r\nfe\r\ntd-ms02\r\nzn1-4\r\n");
    EXPECT_FALSE(history_read("20261124-163415-120-read.ini", bytes));
    history_close();
    ASSERT_TRUE(history_open(dir.path() + "/history", getuid(), getgid()));
    EXPECT_EQ(history_json(), listed);
    history_close();
}

}  // namespace
