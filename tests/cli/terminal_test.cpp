// kelctl for people: what it shows on a terminal, and what it asks.

#include "cli/cli_device.h"
#include "support/terminal.h"

namespace kelconf::test {
namespace {

std::string shownBy(const std::vector<std::string>& command,
                    const std::vector<std::string>& variables = {}) {
    Terminal terminal{command, variables};
    terminal.awaitEnd();
    return terminal.shown();
}

TEST(KelctlTerminal, ValuesAreAlignedColouredAndHarmless) {
    const Device device{smallTree()};
    // Line ends, C1 controls and turned directions are what XML carries and terminals act on.
    ASSERT_EQ(
        shell("printf 'a\\n\\t\\302\\2332Jb\\342\\200\\256\\\\ ä' | kelctl set cam.text=-").status,
        0);
    const std::string harmless = R"(a\n\t\xc2\x9b2Jb\xe2\x80\xae\ ä)";
    EXPECT_EQ(shownBy({"kelctl", "get", "cam.port", "cam.passwd", "cam.text"}),
              "\x1b[36mcam.port\x1b[0m    80\n"
              "\x1b[36mcam.passwd\x1b[0m  \x1b[2m********\x1b[0m\n"
              "\x1b[36mcam.text\x1b[0m    " +
                  harmless + "\n");
    const std::string plain = "cam.port  80\ncam.text  " + harmless + "\n";
    const std::vector<std::string> get{"kelctl", "get", "cam.port", "cam.text"};
    EXPECT_EQ(shownBy(get, {"NO_COLOR=1"}), plain);
    EXPECT_EQ(shownBy(get, {"TERM=dumb"}), plain);
    EXPECT_EQ(shownBy({"kelctl", "--no-color", "get", "cam.port", "cam.text"}), plain);
    EXPECT_EQ(shownBy({"kelctl", "get", "-n", "cam.text"}), harmless + "\n");
    EXPECT_EQ(shownBy({"kelctl", "get", "cam.\xC2\x9B"}),
              "kelctl: unknown name cam.\\xc2\\x9b; kelctl list shows all names\n");
    EXPECT_EQ(shownBy({"kelctl", "diff", "--color=never"}),
              "-cam.text=\n+cam.text=" + harmless + "\n");
    EXPECT_EQ(shownBy({"kelctl", "info", "cam.mode", "--no-color"}),
              "name     cam.mode\nvalue    auto\ndefault  auto\ntype     enum\nrange    \n"
              "step     \noptions  auto,manual\naccess   \n");
    EXPECT_EQ(shell("kelctl --color=always get cam.port").out, "\x1b[36mcam.port\x1b[0m=80\n");
}

TEST(KelctlTerminal, ResetAsksAndTakesOnlyAYes) {
    const Device device{smallTree()};
    ASSERT_EQ(shell("kelctl set cam.port=81 cam.name=n").status, 0);
    for (const char* answer : {"n\n", "\n", "nyes\n", "\x04", "\x03"}) {
        Terminal terminal{{"kelctl", "reset", "--all"}};
        terminal.await("Set 2 parameters back to the factory default? [y/N] ");
        terminal.type(answer);
        EXPECT_EQ(terminal.awaitEnd(), *answer == '\x03' ? 130 : 1) << answer;
    }
    EXPECT_EQ(shell("kelctl get -n cam.port cam.name").out, "81\nn\n");
    Terminal terminal{{"kelctl", "reset", "cam.port"}};
    terminal.await("Set 1 parameter back to the factory default? [y/N] ");
    terminal.type("y\n");
    EXPECT_EQ(terminal.awaitEnd(), 0);
    EXPECT_EQ(shell("kelctl get -n cam.port cam.name").out, "80\nn\n");
}

TEST(KelctlTerminal, ATypedPasswordIsNotShown) {
    const Device device{smallTree()};
    Terminal by_type{{"kelctl", "set", "cam.key=-"}}; // its name tells nothing
    by_type.await("cam.key (not shown): ");
    for (const bool sent : {false, true}) {
        Terminal terminal{
            {"sh", "-c", "trap : INT; kelctl set cam.passwd=-; echo =$?; stty -a | grep -ow echo"}};
        terminal.await("cam.passwd (not shown): ");
        terminal.type(sent ? "hidden\n" : "hidden\x03");
        terminal.await(sent ? "\n=0\necho\n" : "\n=130\necho\n"); // typing shows again
        EXPECT_EQ(terminal.shown().find("hidden"), std::string::npos);
        EXPECT_EQ(shell("kelctl get -n --show-secrets cam.passwd").out,
                  sent ? "hidden\n" : "first\n");
    }
}

TEST(KelctlTerminal, WatchEndsCleanlyOnCtrlC) {
    const Device device{smallTree()};
    Terminal terminal{{"kelctl", "watch", "--no-color", "cam.passwd", "cam.port"}};
    terminal.await("kelctl: watching; Ctrl-C ends it\n");
    ASSERT_EQ(shell("kelctl set cam.name=unwatched cam.passwd=new cam.port=81").status, 0);
    terminal.await("  cam.passwd  ******** -> ********\n");
    terminal.await("  cam.port  80 -> 81\n");
    terminal.type("\x03");
    EXPECT_EQ(terminal.awaitEnd(), 0);
    EXPECT_EQ(terminal.shown().find("unwatched"), std::string::npos);
}

} // namespace
} // namespace kelconf::test
