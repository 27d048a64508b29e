// kelctl at a shell: command line, exit status, standard output and standard error.

#include "cli/cli_device.h"

#include <optional>
#include <string_view>
#include <vector>

namespace kelconf::test {
namespace {

struct Step {
    const char* line;
    int status;
    std::string_view out;
    std::string_view err = ""; // a part of it; empty: nothing at all
};

using namespace std::string_view_literals;

void play(const std::vector<Step>& steps) {
    for (const Step& step : steps) {
        const ProgramResult result = shell(step.line);
        EXPECT_EQ(result.status, step.status) << step.line << "\n" << result.err;
        EXPECT_EQ(result.out, step.out) << step.line;
        if (step.err.empty()) {
            EXPECT_EQ(result.err, "") << step.line;
        } else {
            EXPECT_NE(result.err.find(step.err), std::string::npos) << step.line << "\n"
                                                                    << result.err;
        }
    }
}

// None of these needs a service.
TEST(KelctlUsage, WrongLinesAreRefusedWithWhatToDo) {
    resetDevice(smallTree());
    play({
        {"kelctl", 2, "", "kelctl: a command is missing (kelctl --help shows the usage)\n"},
        {"kelctl lst", 2, "", "there is no command lst; did you mean list?"},
        {"kelctl get", 2, "", "(kelctl get --help shows the usage)"},
        {"kelctl get a --bogus", 2, "", "--bogus"},
        {"kelctl get ''", 2, "", "an operand is empty"},
        {"kelctl get -0 --json a", 2, "", "exclude each other"},
        {"kelctl get --direct a", 2, "", "--direct"},
        {"kelctl set a", 2, "", "\"a\" is not NAME=VALUE"},
        {"kelctl set =a", 2, "", "is not NAME=VALUE"},
        {"kelctl set --direct --no-db a=b", 2, "", "exclude each other"},
        {"kelctl set a=- b=- </dev/null", 2, "", "only one value"},
        {"kelctl status a", 2, "", "(kelctl status --help"},
        {"kelctl get --bogus", 2, "", "there is no option --bogus"},
        {"kelctl get --json=1 a", 2, "", "--json takes no argument"},
        {"kelctl reset --prefix", 2, "", "--prefix needs an argument"},
        {"kelctl watch --count 0", 2, "", "--count is a number from 1 on"},
        {"kelctl watch --count -1", 2, "", "--count is a number from 1 on"},
        {"kelctl watch --timeout=", 2, "", "a time limit is a number"},
        {"kelctl tree", 2, "", "(kelctl tree --help"},
        {"kelctl help tree check | head -2 | tail -1", 0,
         "Usage: kelctl tree check [OPTIONS] FILE\n"},
        {"kelctl reset --yes", 2, "", "--prefix or --all"},
        {"kelctl reset --yes --all a", 2, "", "one of them"},
        {"kelctl reset --all", 2, "", "--yes says yes"},
        {"kelctl export -0", 2, "", "list takes --null"},
        {"kelctl edit", 2, "", "--yes says yes"},
        {"kelctl --request-timeout -1 get a", 2, "", "number of seconds"},
        {"kelctl --color=blue get a", 2, "", "auto, always or never"},
        {"kelctl watch --count x", 2, "", "--count"},
        {"kelctl import /nowhere", 5, "", "kelctl: /nowhere: No such file"},
        {"kelctl --version | grep -c '^kelctl [0-9.]*$'", 0, "1\n"},
        {"kelctl --help | grep -cE '^  "
         "(get|set|list|group|watch|diff|reset|export|import|info|status|batch) '",
         0, "12\n"},
        {"for c in get set list group watch diff reset export import info status; do"
         " kelctl $c --help | grep -c '^Exit status: 0 done'; done | uniq -c | tr -s ' '",
         0, " 11 1\n"},
        {"kelctl --help >/dev/full", 5, "", "cannot write standard output: No space"},
        {"kelctl --help >&-", 5, "", "cannot write standard output: Bad file"},
    });
}

TEST(KelctlUsage, WithoutTheServiceEveryCommandEndsWithStatus3) {
    resetDevice(smallTree());
    ASSERT_EQ(shell("kelconf-init").status, 0);
    play({
        {"kelctl get cam.name", 3, "", "start kelconfd"},
        {"kelctl set cam.name=x", 3, "", "start kelconfd"},
        {"kelctl list", 3, "", "start kelconfd"},
        {"kelctl group cam", 3, "", "start kelconfd"},
        {"kelctl diff", 3, "", "start kelconfd"},
        {"kelctl export", 3, "", "start kelconfd"},
        {"echo a=1 | kelctl import -", 3, "", "nothing was imported"},
        {"kelctl reset --yes --all", 3, "", "start kelconfd"},
        {"kelctl watch --timeout 0.1", 0, "", "no service answers; waiting for one"},
        {"kelctl info cam.port", 3,
         "name=cam.port\ndefault=80\ntype=int\nrange=1,65535\nstep=1\noptions=\naccess=rw\n",
         "start kelconfd"},
        {"kelctl status", 3,
         "service=down\n/mnt/nand/conf/default.db=sound, 8 parameters\n"
         "/mnt/nand/conf/conf.db=missing\n/mnt/backup/conf/conf_backup.db=missing\n"},
        {"kelctl wait --timeout 0.1 cam.port=80", 3, "", "cam.port did not become the value"},
        {"kelctl -q get cam.port", 3, ""},
        {"printf x >>/mnt/nand/conf/default.db; kelctl --json status | grep -o "
         "'default.*damaged\"'",
         0, "default.db\",\"in_order\":false,\"state\":\"damaged\"\n"},
        {"kelctl -q status >/dev/null", 6, ""},
        {"rm /mnt/nand/conf/default.db; kelctl diff", 5, "", "kelconf-init builds the file"},
    });
}

TEST(KelctlCommands, ReadAndSet) {
    const Device device{smallTree()};
    play({
        {"kelctl get cam.port", 0, "cam.port=80\n"},
        {"kelctl get -n cam.port cam.name", 0, "80\ncamera\n"},
        {"kelctl get cam.no cam.port list", 1, "cam.port=80\n", "unknown name cam.no"},
        {"kelctl --json get cam.port cam.no", 1,
         "[\n{\"name\":\"cam.port\",\"value\":\"80\"},\n{\"name\":\"cam.no\",\"value\":null}\n]\n",
         "cam.no"},
        {"kelctl get cam.passwd cam.key cam.text", 0,
         "cam.passwd=********\ncam.key=********\ncam.text=\n"},
        {"kelctl list cam.k", 0, "cam.key=********\n"},
        {"kelctl get cam.passwd cam.key --show-secrets", 0, "cam.passwd=first\ncam.key=k-1\n"},
        {"kelctl list cam.p", 0, "cam.passwd=********\ncam.port=80\n"},
        {"kelctl list -- cam.po", 0, "cam.port=80\n"},
        {"kelctl list cam.port.and.more", 1, "", "no name begins with cam.port.and.more"},
        {"kelctl group no", 1, "", "no parameter belongs to no"},
        {"kelctl list -0 cam.po", 0, "cam.port=80\0"sv},
        {"kelctl group cam.port cam", 0, "cam.port=80\n"},
        {"kelctl list | cut -d. -f1 | uniq -c | tr -s ' '", 0, " 7 cam\n 1 private\n"},
        {"kelctl info cam.mode --json", 0,
         "[\n{\"name\":\"cam.mode\",\"value\":\"auto\",\"default\":\"auto\",\"type\":\"enum\","
         "\"range\":\"\",\"step\":\"\",\"options\":\"auto,manual\",\"access\":\"\"}\n]\n"},
        {"kelctl info cam.no", 1, "", "unknown name cam.no"},
        {"kelctl set cam.port=81 'cam.name=a=b c'", 0, ""},
        {"kelctl get cam.port cam.name", 0, "cam.port=81\ncam.name=a=b c\n"},
        {"kelctl set cam.name=x cam.no=1 cam.non=2", 1, "", "unknown name cam.non"},
        {"kelctl set cam.name=x cam.port=0", 2, "", "must be 1 to 65535; --force"},
        {"kelctl set cam.name=x cam.mode=off", 2, "", "one of auto, manual; --force"},
        {"kelctl set cam.name=x cam.passwd=a=b", 2, "", "cut there after a restart; --force"},
        {"kelctl set cam.name=x \"cam.text=$(printf 'a\\001')\"", 2, "", "U+0001"},
        {"kelctl set cam.name=x \"cam.text=$(printf 'a\\377')\"", 2, "", "not valid UTF-8"},
        {"kelctl get cam.name", 0, "cam.name=a=b c\n"}, // none of them was set
        {"kelctl set --force cam.port=0 cam.passwd=a=b", 0, "", "warning: a password"},
        {"kelctl get --show-secrets cam.port cam.passwd", 0, "cam.port=0\ncam.passwd=a=b\n"},
        {"printf 'one\\ntwo\\n\\n' | kelctl set --direct cam.text=-", 0, ""},
        {"kelctl get -0n cam.text", 0, "one\ntwo\n\0"sv},
        {"kelctl diff --json | head -3", 0,
         "[\n{\"name\":\"cam.name\",\"default\":\"camera\",\"value\":\"a=b c\"},\n"
         "{\"name\":\"cam.passwd\",\"default\":\"********\",\"value\":\"********\"},\n"},
        {"kelctl reset --yes cam.port cam.no", 1, "", "unknown name cam.no"},
        {"kelctl reset --yes cam.port cam.state", 1, "", "cam.state has no factory default"},
        {"kelctl reset --yes cam.port", 0, ""},
        {"kelctl diff cam.p", 1, "-cam.passwd=********\n+cam.passwd=********\n"},
        {"kelctl reset --dry-run --prefix cam.n --prefix cam.na", 0,
         "-cam.name=a=b c\n+cam.name=camera\n"},
        {"kelctl reset --yes --all; kelctl diff", 0, ""},
        {"mv /mnt/nand/conf/default.db.md5 /tmp; kelctl reset --yes --all", 5, "", "sidecar"},
        {"rm /mnt/nand/conf/default.db; kelctl set cam.port=0; kelctl get cam.port", 0,
         "cam.port=0\n", "not checked against range, step and options"},
    });
}

TEST(KelctlCommands, FindStepAndWait) {
    const Device device{smallTree()};
    play({
        {"kelctl list 'cam.[mn]*' cam.po", 0, "cam.mode=auto\ncam.name=camera\ncam.port=80\n"},
        {"kelctl list -n 'cam.?ort' '*.m*o*e' 'ca*.po?t**' '*\\.nam[e]' '*e.x' | sort", 0,
         "80\nauto\ncamera\n", "no name matches *e.x"},
        {"kelctl list 'cam.?' 'am*' '*por' 'cam.port?' '?*.*.*'; kelctl list '*.*' | wc -l", 0,
         "8\n", "no name matches ?*.*.*"},
        {"kelctl list cam.po 'x*' y", 1, "cam.port=80\n", "no name begins with y"},
        {"kelctl list cam.po 'x*' y", 1, "cam.port=80\n", "no name matches x*"},
        {"kelctl list -- --json", 1, "", "no name begins with --json"},
        {"kelctl diff -- --json; kelctl export -- -n", 1, "# kelctl export, format 1\n", "with -n"},
        {"kelctl diff nothing.", 1, "", "no name begins with nothing."},
        {"kelctl reset --yes --prefix nothing.", 1, "", "no name begins with nothing."},
        {"kelctl list --long cam.port", 0,
         "cam.port=80  int, range 1,65535, step 1, default 80, access rw\n"},
        {"kelctl search MANUAL; kelctl search cam Era; kelctl search k-1 --long", 1,
         "cam.mode=auto\ncam.name=camera\n", "nothing found"}, // k-1 is a secret
        {"kelctl exists cam.port cam.mode", 0, ""},
        {"kelctl exists cam.port --json", 0,
         "{\"command\":\"exists\",\"status\":0,\"set\":[],\"messages\":[]}\n"},
        {"kelctl exists cam.port cam.no", 1, ""},
        {"kelctl get cam.prot", 1, "", "unknown name cam.prot; did you mean cam.port?"},
        {"kelctl get --default 7 cam.no cam.port", 0, "cam.no=7\ncam.port=80\n"},
        {"kelctl toggle cam.mode; kelctl toggle private.encrypt_campass; kelctl list -n cam.mode p",
         0, "manual\n0\n"},
        {"kelctl toggle cam.port", 2, "", "none of two values"},
        {"kelctl add cam.port 5; kelctl add --direct cam.port -7.50; kelctl get cam.port", 0,
         "cam.port=85\n", "must be a whole number"},
        {"kelctl add cam.port -85", 2, "", "must be 1 to 65535"},
        {"kelctl add -q --json cam.port 99999 | tr -d '\\n' | grep -c "
         "'^{\"command\":\"add\",\"status\":2,\"set\":\\[\\],\"messages\":\\[\".*65535.*nothing "
         "was set\"\\]}$'",
         0, "1\n"},
        {"kelctl add --json cam.port 0; kelctl set --json cam.key=k-1 cam.port=85", 0,
         "{\"command\":\"add\",\"status\":0,\"set\":[{\"name\":\"cam.port\",\"value\":\"85\"}],"
         "\"messages\":[]}\n{\"command\":\"set\",\"status\":0,\"set\":[{\"name\":\"cam.key\","
         "\"value\":"
         "\"********\"},{\"name\":\"cam.port\",\"value\":\"85\"}],\"messages\":[]}\n"},
        {"kelctl reset --yes --json cam.port; kelctl set cam.port=85", 0,
         "{\"command\":\"reset\",\"status\":0,\"set\":[{\"name\":\"cam.port\",\"value\":\"80\"}],"
         "\"messages\":[]}\n"},
        {"kelctl add cam.name 1", 2, "", "is no number"},
        {"kelctl add --force cam.port -85.25; kelctl get -n cam.port", 0, "-0.25\n"},
        {"(sleep 0.2; kelctl set cam.name=x cam.text=y) & kelctl wait cam.text=y cam.name=x", 0,
         ""},
        {"kelctl wait cam.text=y", 0, ""},
        {"kelctl watch --initial --count 2 cam.n 'cam.t?xt' | cut -c25-", 0,
         "cam.name=x\ncam.text=y\n"},
        {"kelctl watch --initial --json --count 1 cam.n | cut -d, -f2-", 0,
         "\"name\":\"cam.name\",\"value\":\"x\",\"prev_value\":null}\n"},
        {"kelctl set 'cam.text=$(id); exit 1'; kelctl watch --initial --count 1 --exec"
         " 'echo \"$KELCTL_NAME: $KELCTL_VALUE${KELCTL_PREV_VALUE-, first}\"; exit 3' cam.text",
         0, "cam.text: $(id); exit 1, first\n", "the command for cam.text ended with status 3"},
        {"printf 'get cam.name # c\\nset \"cam.name=a b\"\\nget -n cam.name\\nget no\\nget \"\\n'"
         " | kelctl batch",
         1, "cam.name=x\na b\n", "line 5: a quote is not closed"},
        {"kelctl status --wait 9 | head -1", 0, "service=up\n"},
        {"echo cam.name=1 >/tmp/1; echo cam.name=2 >/tmp/2; kelctl import /tmp/1 /tmp/2; "
         "kelctl get cam.name",
         0, "cam.name=2\n"},
    });
    device.service->signal(SIGSTOP); // hangs: a watch ends all the same, and at once
    play({{"kelctl watch --timeout 0.1", 0, ""}});
    device.service->signal(SIGCONT);
}

TEST(KelctlCommands, StatusTellsWhichFileIsNotInOrder) {
    Device device{smallTree()};
    constexpr const char* kStatus = "kelctl status | cut -d= -f2 | sed '/^[0-9]*$/d'";
    // The backup is taken soon after the first change.
    ASSERT_EQ(
        shell("kelctl set --direct cam.name=n; until kelctl status >/dev/null; do :; done").status,
        0);
    play({{kStatus, 0, "up\nsound, 8 parameters\nsound, 8 parameters\nsound, 8 parameters\n"}});
    ASSERT_EQ(device.service->stop(), 0);
    play({
        {"cd /mnt/nand/conf; printf x >>conf.db; printf x >>default.db; rm /mnt/backup/conf/*.md5",
         0, ""},
        {kStatus, 0,
         "down\ndamaged: does not match its sidecar, 8 parameters\n"
         "damaged: does not match its sidecar, 8 parameters\nits sidecar is missing, 8 "
         "parameters\n"},
        {"kelctl --json status | grep -o '\"in_order\":[a-z]*' | uniq -c | tr -s ' '", 0,
         " 3 \"in_order\":false\n"},
    });
}

} // namespace
} // namespace kelconf::test
