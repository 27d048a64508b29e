// export and import, watchers, and what happens when the service or the reader goes away.

#include "cli/cli_device.h"
#include "support/terminal.h"

#include <chrono>
#include <cstdio>
#include <thread>

namespace kelconf::test {
namespace {

std::string listed() {
    return shell("kelctl list -0 --show-secrets").out;
}

TEST(KelctlTransfer, EveryValueComesBackAsItWas) {
    const Device device{smallTree()};
    std::string hostile = " \t lead \\n \\x41 # = \"'<>&;\r\n\n\ttabs\x7f \xC2\x9B \xE2\x80\xAE"
                          "Zähler \xF0\x9F\x93\xB7 ";
    writeFile("/tmp/value", hostile + "\n");
    ASSERT_EQ(shell("kelctl set cam.text=- </tmp/value").status, 0);
    for (int i = 0; hostile.size() < (1U << 20U); ++i) {
        hostile += "line " + std::to_string(i) + " \\ & <b>\n";
    }
    writeFile("/tmp/value", hostile + "\n");
    ASSERT_EQ(shell("kelctl set 'cam.passwd= #x ' cam.key=\\\\ cam.name=- </tmp/value").status, 0);
    const std::string before = listed();
    ASSERT_NE(before.find("cam.name=" + hostile + '\0'), std::string::npos);

    ASSERT_EQ(shell("kelctl export --show-secrets >/tmp/all; kelctl export cam. >/tmp/open").status,
              0);
    EXPECT_EQ(shell("head -1 /tmp/all; grep -a cam.text /tmp/all; tail -1 /tmp/open").out,
              "# kelctl export, format 1\n"
              "cam.text=\\x20\\t lead \\\\n \\\\x41 # = \"'<>&;\\r\\n\\n\\ttabs\\x7f \\xc2\\x9b "
              "\\xe2\\x80\\xaeZähler \xF0\x9F\x93\xB7\\x20\n"
              "cam.text=\\x20\\t lead \\\\n \\\\x41 # = \"'<>&;\\r\\n\\n\\ttabs\\x7f \\xc2\\x9b "
              "\\xe2\\x80\\xaeZähler \xF0\x9F\x93\xB7\\x20\n");
    EXPECT_EQ(shell("grep -ac 'secret, left out' /tmp/open; grep -c state /tmp/all").out, "2\n0\n");
    ASSERT_EQ(shell("kelctl reset --yes --all; kelctl diff").status, 0);
    ASSERT_EQ(shell("kelctl import /tmp/all").status, 0);
    EXPECT_EQ(listed(), before);
    EXPECT_EQ(shell("kelctl import --dry-run - </tmp/all; kelctl import /tmp/open").out, "");
    EXPECT_EQ(listed(), before); // what was left out of an export is left alone
}

TEST(KelctlTransfer, NothingIsSetWhenALineIsRefused) {
    const Device device{smallTree()};
    const std::string before = listed();
    const struct {
        std::string content;
        int status;
        const char* complaint;
    } table[] = {
        {"cam.name=x\nword\n", 2, "/tmp/f:2: no \"=\""},
        {"cam.name=x\n=1\n", 2, "/tmp/f:2: no name"},
        {"cam.name=x\n\n# c\ncam.name=y\n", 2, "/tmp/f:4: cam.name stands in line 1 already"},
        {"cam.name=x\ncam.text=\\q\n", 2, "/tmp/f:2: an unknown escape"},
        {"cam.name=x\ncam.text=\\x0\n", 2, "/tmp/f:2: an unknown escape"},
        {"cam.name=x\ncam.text=\\x01\n", 2, "/tmp/f:2: cam.text: the value holds the control"},
        {"cam.name=x\ncam.no=1\n", 1, "/tmp/f:2: unknown name cam.no"},
        {"cam.name=x\ncam.port=0\n", 2, "/tmp/f:2: cam.port: must be 1 to 65535"},
        {"cam.name=x\ncam.passwd=a=b\n", 2, "/tmp/f:2: cam.passwd: a password with"},
        {"{\"cam.name\":\"x\",\"cam.name\":\"y\"}", 2, "/tmp/f: cam.name: stands there twice"},
        {"{\"cam.name\":\"x\",\"cam.text\":[1]}", 2, "/tmp/f: cam.text: is neither a text nor"},
        {"{\"cam.name\":\"x\"", 2, "/tmp/f: no JSON"},
        {R"({"cam.name":5,{"":6}:"","":{},"":{}})", 2, "/tmp/f: no JSON"},
        {R"({"cam.name":"\ud83d"})", 2, "/tmp/f: no JSON"},
        {R"({"cam.name":"\u0000"})", 2, "/tmp/f: no JSON"},
        {R"({"cam.name":01})", 2, "/tmp/f: no JSON"},
        {R"({"cam.name":"x"}})", 2, "/tmp/f: no JSON"},
        {"{\"cam.name\":" + std::string(200, '[') + std::string(200, ']') + "}", 2, "no JSON"},
        {R"({"cam.name":[-1e+5,{"a":null}]})", 2, "/tmp/f: cam.name: is neither a text"},
        {"{\"cam.name\":\"x\",\"cam.text\":\"\\u0001\"}", 2,
         "cam.text: the value holds the control"},
        {"{\"cam.name\":\"x\",\"cam.port\":0.0}", 2, "/tmp/f: cam.port: must be"},
    };
    for (const auto& row : table) {
        writeFile("/tmp/f", row.content);
        const ProgramResult result = shell("kelctl import /tmp/f");
        EXPECT_EQ(result.status, row.status) << row.content;
        EXPECT_NE(result.err.find(row.complaint), std::string::npos) << result.err;
        EXPECT_NE(result.err.find("kelctl: nothing was imported\n"), std::string::npos);
        EXPECT_EQ(listed(), before) << row.content;
    }
    // A file that went through an editor elsewhere.
    writeFile("/tmp/f", "\xEF\xBB\xBF# mine\r\n cam.name = new name \t\r\ncam.port=80");
    EXPECT_EQ(shell("kelctl import --dry-run /tmp/f").out,
              "-cam.name=camera\n+cam.name=new name\n");
    EXPECT_EQ(listed(), before);
    EXPECT_EQ(shell("kelctl import - </tmp/f && kelctl get -n cam.name").out, "new name\n");
    writeFile("/tmp/f", R"( {"cam.name" : "\u00e9\ud83d\ude00\/\"" , "cam.port":81 } )");
    EXPECT_EQ(shell("kelctl import /tmp/f && kelctl get -n cam.name cam.port").out,
              "\xc3\xa9\xf0\x9f\x98\x80/\"\n81\n");
}

TEST(KelctlTransfer, JsonAndTheEditorBringTheSame) {
    const Device device{smallTree()};
    const auto expect = [](const char* line, int status, const std::string& out) {
        const ProgramResult result = shell(line);
        EXPECT_EQ(result.status, status) << line << "\n" << result.err;
        EXPECT_EQ(result.out, out) << line;
        return result.err;
    };
    writeFile("/tmp/j", "\n{\"cam.name\":true,\"cam.port\":81,\"cam.text\":\"\\\"\\u00e9\\n\"}");
    expect(
        "kelctl diff /tmp/j", 1,
        "-cam.name=camera\n+cam.name=1\n-cam.port=80\n+cam.port=81\n-cam.text=\n+cam.text=\"é\n\n");
    expect("kelctl import /tmp/j; kelctl export --changed --json | tee /tmp/k", 0,
           "{\n\"cam.name\":\"1\",\n\"cam.port\":\"81\",\n\"cam.text\":\"\\\"é\\n\"\n}\n");
    expect("kelctl reset --yes --all; kelctl import /tmp/k; kelctl diff - </tmp/k", 0, "");
    expect("kelctl diff cam. /tmp/k", 2, "");
    EXPECT_NE(expect("EDITOR=true kelctl edit --yes", 0, "").find("nothing was changed"),
              std::string::npos);
    EXPECT_NE(expect("EDITOR=false kelctl edit --yes", 5, "").find("nothing was set"),
              std::string::npos);
    expect("EDITOR=\"sed -i s/port=81/port=82/\" kelctl edit --yes cam.; ls /tmp/kelctl-edit.*", 2,
           "-cam.port=81\n+cam.port=82\n");
    const std::string said = expect("VISUAL='sed -i s/=82/=0/' kelctl edit --yes cam.", 2, "");
    EXPECT_NE(said.find(":6: cam.port: must be 1 to 65535"), std::string::npos) << said;
    expect("grep -c =0 /tmp/kelctl-edit.*; stat -c %a /tmp/kelctl-edit.*; kelctl get cam.port", 0,
           "1\n600\ncam.port=82\n");
    ASSERT_EQ(shell("kelctl set cam.key=hidden").status, 0);
    Terminal terminal{{"kelctl", "edit", "--show-secrets"}, {"EDITOR=sed -i s/=hidden/=seen/"}};
    terminal.await("+cam.key=seen");
    terminal.await("Set 1 parameter? [y/N] ");
    terminal.type("y\n");
    EXPECT_EQ(terminal.awaitEnd(), 0);
}

constexpr int kMany = 3000;

// Waits until the first of the import's requests was carried out.
void awaitFirstValue() {
    ASSERT_EQ(shell("until [ \"$(kelctl get -n cam.p.1.v)\" = new ]; do :; done").status, 0);
}

int countChanged() {
    return std::stoi(shell("kelctl --request-timeout 60 diff | grep -c ^+").out);
}

std::string newValues() {
    return "for i in $(seq " + std::to_string(kMany) + "); do echo cam.p.$i.v=new; done >/tmp/new";
}

TEST(KelctlTransfer, AServiceThatDiesLeavesAnExactReport) {
    Device device{largeTree(kMany)};
    ASSERT_EQ(shell(newValues()).status, 0);
    ASSERT_EQ(shell("(kelctl import --direct /tmp/new 2>/tmp/said; echo $? >/tmp/ended) &").status,
              0);
    awaitFirstValue();
    device.service->killNow();
    ASSERT_EQ(shell("until [ -s /tmp/ended ]; do :; done").status, 0);
    EXPECT_EQ(readFile("/tmp/ended"), "3\n");
    const std::string said = readFile("/tmp/said");
    const std::size_t at = said.find("\nkelctl: ");
    int set = -1;
    int unsure = -1;
    ASSERT_EQ(std::sscanf(said.c_str() + at,
                          "\nkelctl: %d of 3000 values are set; of the next %d (", &set, &unsure),
              2)
        << said;
    device.start();
    EXPECT_GE(countChanged(), set);
    EXPECT_LE(countChanged(), set + unsure);
    EXPECT_LT(countChanged(), kMany);
}

TEST(KelctlTransfer, CtrlCEndsAnImportWithAnExactReport) {
    const Device device{largeTree(kMany)};
    ASSERT_EQ(shell(newValues()).status, 0);
    Terminal terminal{{"kelctl", "import", "/tmp/new"}};
    terminal.await("\r200 of 3000 values set");
    terminal.type("\x03");
    terminal.await("\r\x1b[Kkelctl: import interrupted: ");
    EXPECT_EQ(terminal.awaitEnd(), 130);
    const std::string said = terminal.shown().substr(terminal.shown().find("interrupted"));
    int set = -1;
    ASSERT_EQ(std::sscanf(said.c_str(), "interrupted: %d of 3000 values are set", &set), 1) << said;
    EXPECT_LT(set, kMany);
    EXPECT_EQ(countChanged(), set);
    EXPECT_EQ(shell("kelctl import --dry-run /tmp/new | grep -c ^+").out,
              std::to_string(kMany - set) + "\n");
}

TEST(KelctlTransfer, AReaderThatGoesAwayEndsTheProgram) {
    const Device device{largeTree(10 * kMany)}; // several times what a pipe holds
    EXPECT_EQ(shell("{ kelctl list; echo $? >&2; } | head -1").err, "141\n");
    EXPECT_EQ(shell("{ kelctl watch; echo $? >&2; } | true").err, "141\n");
    EXPECT_EQ(shell("{ trap '' PIPE; kelctl list; echo $? >&2; } | head -c 1 | wc -c").err,
              "kelctl: cannot write standard output: Broken pipe\n5\n");
    EXPECT_EQ(shell("kelctl list >/dev/full").status, 5);
    EXPECT_EQ(shell("kelctl watch --count 1 >/dev/full & until ! kill -0 $! 2>&-; do"
                    " kelctl set cam.p.1.v=$((i=i+1)); done; wait $!")
                  .status,
              5);
}

TEST(KelctlWatch, PrintsOneLineAChangeAndOutlivesARestart) {
    Device device{smallTree()};
    // A state is announced at every set, so setting goes on until the watcher has seen enough.
    constexpr const char* kSetUntil =
        "until [ $(wc -l <%s) -ge %d ]; do kelctl set cam.state=\"$(printf 'a\\nb')\"; done";
    const auto setUntil = [&](const char* file, int lines) {
        std::array<char, 200> line{};
        std::snprintf(line.data(), line.size(), kSetUntil, file, lines);
        ASSERT_EQ(shell(line.data()).status, 0);
    };
    ASSERT_EQ(shell(">/tmp/w; (kelctl watch --count 2 cam.s >/tmp/w; echo $? >/tmp/we) &").status,
              0);
    setUntil("/tmp/w", 1);
    device.restart();
    setUntil("/tmp/w", 2);
    ASSERT_EQ(shell("until [ -s /tmp/we ]; do :; done; cat /tmp/we; tail -1 /tmp/w | "
                    "sed 's/^[0-9]*-[0-9]*-[0-9]* [0-9:]*[.][0-9][0-9][0-9] /T /'")
                  .out,
              "0\nT cam.state=a\\nb\n");
    const ProgramResult many =
        shell(">/tmp/ends; for i in $(seq 30); do (kelctl watch --json --count 1 --timeout 60 "
              "cam.state >/tmp/j$i; echo $? >>/tmp/ends) & done\n"
              "until [ \"$(wc -l </tmp/ends)\" = 30 ]; do kelctl set cam.state=x; done\n"
              "cat /tmp/j* | grep -c '\"name\":\"cam.state\",\"value\":\"x\",\"prev_value\":'; "
              "sort -u /tmp/ends");
    EXPECT_EQ(many.out, "30\n0\n") << many.err;
    EXPECT_EQ(shell("kelctl watch --count 1 --timeout 0.1").status, 3);
    EXPECT_EQ(shell("kelctl watch --timeout 0.1").status, 0);
}

} // namespace
} // namespace kelconf::test
