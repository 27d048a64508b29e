// What a start makes of a live database that something has happened to.
#include "daemon/bus_client.h"
#include "daemon/daemon_process.h"
#include "support/device_log.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

namespace kelconf::test {
namespace {

namespace fs = std::filesystem;

const std::string kLive = "/mnt/nand/conf/conf.db";
const std::string kBackup = "/mnt/backup/conf/conf_backup.db";
constexpr const char* kDirect = "SET_ACTION_DIRECT";

void flipByteOf(const std::string& path, const std::string& text) {
    std::string bytes = contentOf(path);
    const std::size_t at = bytes.find(text);
    ASSERT_NE(at, std::string::npos);
    bytes[at] = static_cast<char>(bytes[at] ^ 1);
    writeFile(path, bytes);
}

struct Damage {
    const char* name;
    std::function<void()> happen;
    const char* verdict;
    const char* value; // of the parameter afterwards
    bool evidence;
};

void PrintTo(const Damage& damage, std::ostream* out) {
    *out << damage.name;
}

class Recovery : public testing::TestWithParam<Damage> {};

// The live database holds "newer", its backup "backed-up", the tree "default".
void prepare() {
    resetDevice(treeOf(leaf("word", "string", "default")));
    {
        Daemon daemon;
        ASSERT_TRUE(daemon.awaitReady());
        ASSERT_TRUE(set(kDirect, {{"private.word", "backed-up"}}));
        ASSERT_EQ(daemon.stop(), 0);
    }
    const std::string backup = contentOf(kBackup);
    const std::string sidecar = contentOf(kBackup + ".md5");
    {
        Daemon daemon;
        ASSERT_TRUE(daemon.awaitReady());
        ASSERT_TRUE(set(kDirect, {{"private.word", "newer"}}));
        ASSERT_EQ(daemon.stop(), 0);
    }
    writeFile(kBackup, backup);
    writeFile(kBackup + ".md5", sidecar);
}

TEST_P(Recovery, DecidesByWhatIsLeft) {
    prepare();
    GetParam().happen();
    DeviceLog log;
    {
        Daemon daemon;
        ASSERT_TRUE(daemon.awaitReady());
        EXPECT_EQ(valueOf("private.word"), GetParam().value);
        EXPECT_TRUE(set(kDirect, {{"private.word", "again"}}));
        EXPECT_EQ(daemon.stop(), 0);
    }
    EXPECT_NE(log.take().console.find(GetParam().verdict), std::string::npos);
    EXPECT_EQ(exists(kLive + ".damaged"), GetParam().evidence);
    Daemon daemon;
    ASSERT_TRUE(daemon.awaitReady());
    EXPECT_EQ(valueOf("private.word"), "again") << "the repair lasts";
    EXPECT_NE(log.take().console.find("live database sound"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(
    Files, Recovery,
    testing::Values(
        Damage{"untouched", [] {}, "live database sound", "newer", false},
        Damage{"flipped byte in a value", [] { flipByteOf(kLive, "newer"); },
               "live database damaged", "backed-up", true},
        Damage{"cut in half", [] { fs::resize_file(kLive, fs::file_size(kLive) / 2); },
               "live database damaged", "backed-up", true},
        Damage{"emptied", [] { fs::resize_file(kLive, 0); }, "live database damaged", "backed-up",
               false},
        Damage{"deleted", [] { fs::remove(kLive); }, "live database missing", "backed-up", false},
        Damage{"deleted with its backup",
               [] {
                   fs::remove(kLive);
                   fs::remove(kBackup);
               },
               "live database made new", "default", false},
        Damage{"damaged like its backup",
               [] {
                   flipByteOf(kLive, "newer");
                   flipByteOf(kBackup, "backed-up");
               },
               "live database made new", "default", true},
        Damage{"no sidecar", [] { fs::remove(kLive + ".md5"); }, "live database damaged",
               "backed-up", true},
        Damage{"committed, not sealed",
               [] { sql(kLive, "UPDATE CONFIG SET VALUE='unsealed' WHERE NAME='private.word'"); },
               "live database recovered", "unsealed", false}));

// ---- Passwords ----------------------------------------------------------------------------------

const std::string kPassword = leaf("admin_passwd", "string", "factory");
const std::string kSecond = leaf("user_password", "string", "later");

std::string switchAt(const std::string& value) {
    return leaf("encrypt_campass", "int", value);
}

void expectAfterStart(const std::string& elements, const std::vector<Parameter>& expected,
                      const std::vector<Parameter>& to_set) {
    writeFile("/etc/neutral_tree.xml", treeOf(elements));
    Daemon daemon;
    ASSERT_TRUE(daemon.awaitReady());
    for (const auto& [name, value] : expected) {
        EXPECT_EQ(valueOf(name), value) << name;
    }
    EXPECT_TRUE(set(kDirect, to_set));
    EXPECT_EQ(daemon.stop(), 0);
}

class SwitchDefault : public testing::TestWithParam<const char*> {};

TEST_P(SwitchDefault, DoesNotDecideHowPasswordsRead) {
    resetDevice("");
    const std::string tree = kPassword + switchAt(GetParam());
    expectAfterStart(tree, {{"private.admin_passwd", "factory"}}, {{"private.admin_passwd", "me"}});
    EXPECT_NE(sql(kLive, "SELECT VALUE FROM CONFIG WHERE NAME='private.admin_passwd'")[0][0], "me");
    expectAfterStart(tree + kSecond,
                     {{"private.admin_passwd", "me"}, {"private.user_password", "later"}},
                     {{"private.admin_passwd", "cut=off"}});
    expectAfterStart(tree + kSecond,
                     {{"private.admin_passwd", "cut"}, {"private.user_password", "later"}}, {});
}

TEST_P(SwitchDefault, MayBeSetByAClient) {
    resetDevice("");
    const std::string tree = kPassword + switchAt("0");
    expectAfterStart(tree, {},
                     {{"private.encrypt_campass", GetParam()}, {"private.admin_passwd", "me"}});
    for (int start = 0; start < 2; ++start) {
        expectAfterStart(tree, {{"private.admin_passwd", "me"}}, {});
    }
}

INSTANTIATE_TEST_SUITE_P(Values, SwitchDefault, testing::Values("0", "1", "", "00"));

TEST(Passwords, StayPlainWithoutTheSwitchAndAreConvertedWithIt) {
    resetDevice("");
    expectAfterStart(kPassword, {{"private.admin_passwd", "factory"}},
                     {{"private.admin_passwd", "me"}});
    EXPECT_EQ(sql(kLive, "SELECT VALUE FROM CONFIG WHERE NAME='private.admin_passwd'")[0][0], "me");
    for (int start = 0; start < 2; ++start) {
        expectAfterStart(kPassword + switchAt("1"), {{"private.admin_passwd", "me"}}, {});
    }
}

} // namespace
} // namespace kelconf::test
