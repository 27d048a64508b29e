// The tour of the examples, as scripts/run shows it, and the shell at its end.

#include "cli/cli_device.h"
#include "support/terminal.h"

#include <sstream>

namespace kelconf::test {
namespace {

constexpr const char* kTour = KELCONF_SCRIPTS "/tour";

void installExamples() {
    resetDevice();
    for (const char* tree : {"neutral_tree.xml", "ext_tree.xml"}) {
        writeFile(std::string{"/etc/"} + tree, readFile(std::string{KELCONF_EXAMPLES "/"} + tree));
    }
    ASSERT_EQ(shell("kelconf-init").status, 0);
}

TEST(Tour, ShowsAChangeAnnouncedAndKept) {
    installExamples();
    const ProgramResult tour = shell(kTour);
    EXPECT_EQ(tour.status, 0) << tour.out << tour.err;
    EXPECT_EQ(tour.err, "");
    std::size_t at = 0;
    for (const char* line :
         {"$ kelctl set 'system.info.location=gate 3, north'\n", "kelctl watch, meanwhile:\n20",
          " system.info.location=gate 3, north\n", "\n+system.info.location=gate 3, north\n",
          "started anew\n$ kelctl get system.info.location\nsystem.info.location=gate 3, north\n",
          "/mnt/nand/conf/conf.db=sound"}) {
        at = tour.out.find(line, at);
        ASSERT_NE(at, std::string::npos) << line << "\nnot in its place in\n" << tour.out;
    }
    EXPECT_EQ(shell(std::string{"env -u KELCONF_DEVICE "} + kTour).status, 1)
        << "a host's own /tmp and /mnt are not touched";
}

// As printed, in their order, but for what cannot be in a test: an answer to a question, an end by
// Ctrl-C, and files of the reader's own.
TEST(Documents, PrintCommandsThatWork) {
    installExamples();
    const Daemon daemon; // on the trees that are there
    ASSERT_TRUE(daemon.awaitReady());
    ASSERT_EQ(
        shell("cp /etc/neutral_tree.xml /tmp/my_tree.xml; echo hello >/tmp/location.txt").status,
        0);
    const std::string printed =
        shell("cd " KELCONF_EXAMPLES "/..; for f in README.md docs/*.md man/*.scd; do"
              " sed -n '/^ *```/,/^ *```/p' $f; done | sed -nE 's/^ *([$] |device# )?(kelctl .*)/"
              "\\2/p' | sed -E 's/ {2,}#.*//'")
            .out;
    std::istringstream lines{printed};
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        const bool endless = line.starts_with("kelctl watch");
        line += line.starts_with("kelctl reset") ? " --yes" : endless ? " --timeout 0.2" : "";
        const ProgramResult result = shell("cd /tmp; " + line);
        EXPECT_TRUE(result.status == 0 || (result.status == 1 && line.starts_with("kelctl diff")) ||
                    (result.status == 3 && endless))
            << line << ": " << result.status << "\n"
            << result.err;
        EXPECT_EQ(result.err, "") << line;
    }
    EXPECT_GE(count, 12) << printed;
}

TEST(Tour, EndsInAShellWithTheServiceAndCompletion) {
    installExamples();
    Terminal terminal{{kTour, "--shell"}};
    terminal.await("device# ");
    terminal.type("kelctl get system.info.hostn\t\n");
    terminal.await("\x1b[36msystem.info.hostname\x1b[0m  camera\n");
    terminal.type("kelctl set system.info.hostname=gate\n");
    terminal.await("device# ");
    terminal.type("exit\n");
    EXPECT_EQ(terminal.awaitEnd(), 0);
    EXPECT_NE(shell("kelctl status").out.find("service=down"), std::string::npos);
    EXPECT_EQ(sql("/mnt/nand/conf/conf.db",
                  "SELECT VALUE FROM CONFIG WHERE NAME='system.info.hostname'")[0][0],
              "gate");
}

} // namespace
} // namespace kelconf::test
