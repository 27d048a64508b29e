// Completion as a user sees it: interactive shells behind a terminal, and the TAB key.

#include "cli/cli_device.h"
#include "support/terminal.h"

namespace kelconf::test {
namespace {

// More names than are offered at once, in groups; words with what is special to a shell.
std::string groupedTree() {
    std::string tree = "<tree>";
    for (const char* trunk : {"network", "netware", "system"}) {
        tree += "<" + std::string{trunk} + " type=\"trunk\"><http type=\"branch\">";
        for (int i = 10; i < 30; ++i) {
            tree += "<p" + std::to_string(i) + " type=\"string\">v</p" + std::to_string(i) + ">";
        }
        tree += "</http><mode type=\"enum\" options=\"1920x1080@25,1920x1080@30,auto\">auto</mode>"
                "</" +
                std::string{trunk} + ">";
    }
    return tree + "<other type=\"trunk\"><single type=\"string\" options=\"a b,a&amp;c,x:1,x:2\"/>"
                  "</other></tree>";
}

struct Shell {
    std::vector<std::string> command;
    std::string set_up;
};

// No start-up file of a user or a system is read.
const Shell kBash{{"bash", "--norc", "--noprofile", "-i"}, ". " KELCONF_COMPLETIONS "/kelctl.bash"};
const Shell kZsh{{"zsh", "-f", "-i"},
                 "fpath=(" KELCONF_COMPLETIONS " $fpath); autoload -Uz compinit; compinit -D -u; "
                 "unsetopt zle_bracketed_paste prompt_sp"};

// What the line has become after a TAB: a function in the place of kelctl's last call shows its
// arguments. `keys` may hold "\t" itself; one follows at the end.
struct Case {
    const char* keys;
    const char* line; // arguments behind "kelctl", each in <>
};

const std::vector<Case> kCases = {
    {"ge", "<get>"},
    {"re", "<reset>"},
    {"get oth", "<get><other.single>"},
    {"get net\tork.m", "<get><network.mode>"},
    {"get syst", "<get><system.>"},
    {"get system.h", "<get><system.http.p>"},
    {"get system.http.p1\t2", "<get><system.http.p12>"},
    {"info -- system.mo", "<info><--><system.mode>"},
    {"get --no-color 'system.mo", "<get><--no-color><system.mode>"},
    {"set system.mo", "<set><system.mode=>"},
    {"set system.mode=1", "<set><system.mode=1920x1080@>"},
    {"set system.mode=1920x1080@3", "<set><system.mode=1920x1080@30>"},
    {"set system.mode=\tau", "<set><system.mode=auto>"},
    {"set other.single=x", "<set><other.single=x:>"},
    {"set other.single=x:2", "<set><other.single=x:2>"},
    {"reset --pre\toth", "<reset><--prefix><other.single>"},
    {"get --col\tne", "<get><--color><never>"},
    {"get --color=ne", "<get><--color=never>"},
    {"--js\tlis\tnetwa", "<--json><list><netware.>"},
    {"list one tw", "<list><one><tw>"},
    {"nothing x", "<nothing><x>"},
    {"import /tmp/import-", "<import></tmp/import-me>"},
};

class Completed : public testing::TestWithParam<const Shell*> {};

// Runs a table in one shell: each line is completed, then run with what it has become.
void complete(Terminal& terminal, const std::vector<Case>& cases) {
    for (const Case& each : cases) {
        terminal.type(std::string{"kelctl "} + each.keys + "\t");
        terminal.type("\n");
        terminal.await("ran:");
        terminal.await(":end");
        terminal.await("$ ");
        const std::string& shown = terminal.shown();
        const std::size_t begin = shown.rfind("ran:");
        EXPECT_EQ(shown.substr(begin, shown.rfind(":end") - begin), std::string{"ran:"} + each.line)
            << each.keys;
    }
}

TEST_P(Completed, ByTheService) {
    Device device{groupedTree()};
    writeFile("/tmp/import-me", "");
    Terminal terminal{GetParam()->command, {"PS1=$ ", "HOME=/tmp"}};
    terminal.type(GetParam()->set_up + "\n");
    // The shells complete the function's name as the program's; what they ask goes to the program.
    terminal.type("kelctl() { if [ \"$1\" = __complete ]; then command kelctl \"$@\"; else printf "
                  "'ran:'; printf '<%s>' \"$@\"; echo :'end'; fi; }; echo rea''dy\n");
    terminal.await("ready");
    terminal.await("$ ");
    complete(terminal, kCases);
    // Without the service the names are those of default.db; without either there are none.
    EXPECT_EQ(device.service->stop(), 0);
    complete(terminal, {{"get oth", "<get><other.single>"}});
    ASSERT_EQ(std::remove("/mnt/nand/conf/default.db"), 0);
    complete(terminal, {{"get oth", "<get><oth>"}});
    EXPECT_EQ(terminal.shown().find("kelctl:"), std::string::npos) << "no complaints";
}

INSTANTIATE_TEST_SUITE_P(Shells, Completed, testing::Values(&kBash, &kZsh),
                         [](const auto& chosen) { return chosen.param->command.front(); });

} // namespace
} // namespace kelconf::test
