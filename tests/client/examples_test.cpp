// The example trees and README's session, as somebody new meets them.
#include "cli/cli_device.h"

#include <algorithm>
#include <sstream>

namespace kelconf::test {
namespace {

constexpr const char* kProject = KELCONF_PROJECT;
constexpr const char* kDefaults = "/mnt/nand/conf/default.db";

class Examples : public ::testing::Test {
  protected:
    void SetUp() override {
        resetDevice();
        for (const char* tree : {"/neutral_tree.xml", "/ext_tree.xml"}) {
            writeFile(std::string{"/etc"} + tree,
                      readFile(std::string{kProject} + "/examples" + tree));
        }
        DeviceLog log;
        ASSERT_EQ(shell("kelconf-init").status, 0);
        EXPECT_EQ(log.take().console.find("error"), std::string::npos);
        service_.emplace();
        ASSERT_TRUE(service_->awaitReady());
    }
    std::optional<Daemon> service_;
};

TEST_F(Examples, AreLiveAndKeepSecretsOutOfTheLog) {
    const auto count = [](const char* where) {
        return std::stoi(
            sql(kDefaults, std::string{"SELECT count(*) FROM CONFIGDEFAULT WHERE "} + where)[0][0]);
    };
    const int factory_only = count("NAME LIKE 'ipcam.%'");
    EXPECT_GT(factory_only, 0);
    EXPECT_LE(factory_only, 5);
    EXPECT_EQ(sql("/mnt/nand/conf/conf.db", "SELECT count(*) FROM CONFIG")[0][0],
              std::to_string(count("1") - factory_only));
    EXPECT_GT(count("TYPE='password'"), 20);
    EXPECT_EQ(count("(TYPE='password' OR NAME LIKE '%password%') AND NAME NOT LIKE '%passwd%'"), 0);
}

// Every command of README's session; a question is answered beforehand.
TEST_F(Examples, AnswerReadmesSession) {
    std::istringstream readme{readFile(std::string{kProject} + "/README.md")};
    const std::string prompt = "device# kelctl ";
    int commands = 0;
    for (std::string line; std::getline(readme, line);) {
        if (line.starts_with(prompt)) {
            const bool asks = line.starts_with(prompt + "reset");
            const std::string command = line.substr(8) + (asks ? " --yes" : "");
            const ProgramResult result = shell(command);
            EXPECT_EQ(result.status, line.starts_with(prompt + "diff") ? 1 : 0)
                << command << "\n"
                << result.out << result.err;
            ++commands;
        }
    }
    EXPECT_GE(commands, 6);
}

} // namespace
} // namespace kelconf::test
