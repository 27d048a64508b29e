// kelctl tree check: what it says of a tree, and that it agrees with what kelconf-init builds.
#include "support/files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>

namespace kelconf::test {
namespace {

constexpr const char* kTree = "/etc/neutral_tree.xml";
constexpr const char* kDefaults = "/mnt/nand/conf/default.db";

std::string inTrunk(const std::string& inside) {
    return "<t><c type=\"trunk\">\n" + inside + "\n</c></t>";
}

std::string times(int count, const std::string& text) {
    std::string all;
    for (int i = 0; i < count; ++i) {
        all += text;
    }
    return all;
}

// <x0...<x1...
std::string numbered(int count, const std::string& rest) {
    std::string all;
    for (int i = 0; i < count; ++i) {
        all += "<x" + std::to_string(i) + rest;
    }
    return all;
}

std::string nested(int levels, const std::string& element, const std::string& inside) {
    return times(levels, "<" + element + ">") + inside +
           times(levels, "</" + element.substr(0, element.find(' ')) + ">");
}

std::string group(const std::string& number, const std::string& inside) {
    return "<m type=\"multiple_instance\" number=\"" + number + "\">" + inside + "</m>";
}

constexpr const char* kLeaf = "<x type=\"int\">1</x>";

struct Case {
    std::string tree;
    int status;
    std::vector<std::string> said; // each "LINE: SEVERITY: beginning of the text", no more
};

ProgramResult check(const std::string& operands) {
    return runProgram("kelctl tree check " + operands);
}

std::size_t rowsThatInitBuilds() {
    std::filesystem::remove_all(kDefaults);
    runProgram("kelconf-init");
    return std::stoul(sql(kDefaults, "SELECT count(*) FROM CONFIGDEFAULT")[0][0]);
}

void PrintTo(const Case& c, std::ostream* out) {
    *out << c.tree.substr(0, 200);
}

class TreeCheck : public testing::TestWithParam<Case> {};

TEST_P(TreeCheck, SaysWhatIsWrongAndAgreesWithTheBuild) {
    const Case& c = GetParam();
    resetDevice();
    writeFile(kTree, c.tree);
    const ProgramResult result = check(kTree);
    EXPECT_EQ(result.status, c.status);
    EXPECT_EQ(result.err, "");
    std::istringstream lines(result.out);
    std::string line;
    for (const std::string& expected : c.said) {
        ASSERT_TRUE(std::getline(lines, line)) << expected;
        EXPECT_TRUE(line.starts_with(kTree + (":" + expected))) << line << "\nnot " << expected;
    }
    ASSERT_TRUE(std::getline(lines, line));
    const std::string sum = std::string{kTree} + ": " + std::to_string(rowsThatInitBuilds()) + " ";
    EXPECT_TRUE(line.starts_with(sum)) << line << "\nnot " << sum;
    EXPECT_FALSE(std::getline(lines, line)) << line;
}

const Case kCases[] = {
    {inTrunk(kLeaf), 0, {}},
    // not well-formed
    {"", 1, {"1: error: Document is empty"}},
    {"<t>\n<a>\n</t>", 1, {"3: error: Opening and ending tag", "3: error: Premature end"}},
    {"<t><c type=\"trunk\"><p:x type=\"int\"/></c></t>", 1, {"1: warning: Namespace prefix p"}},
    // kinds
    {"<t/>", 1, {"1: error: no trunk below the root"}},
    {"<t>\n<a type=\"branch\"/>\n<b/>\n<C type=\"trunk\"/></t>",
     1,
     {"2: warning: a is no trunk but of type \"branch\"", "3: warning: b is no trunk:"}},
    {inTrunk("<x>1</x>\n<b Type=\"branch\"/>"),
     1,
     {"2: warning: c.x has no \"type\"", "3: warning: c.b has no \"type\"",
      "3: warning: c.b has an attribute \"Type\", which is not read; is \"type\" meant?"}},
    {inTrunk("<b type=\"barnch\">" + std::string{kLeaf} + "</b><t type=\"trunk\"/>"),
     1,
     {"2: warning: c.b is an ordinary parameter of type \"barnch\"; is \"branch\" meant?",
      "2: warning: c.b holds elements", "2: warning: c.t is an ordinary parameter of type"}},
    {inTrunk("stray<b type=\"branch\" mode=\"r\">" + std::string{kLeaf} + "</b>"),
     0,
     {"2: note: c holds text", "2: note: c.b has an attribute \"mode\""}},
    {"<!DOCTYPE t [<!ENTITY e '<x type=\"int\">1</x>'>]>" + inTrunk("&e;"),
     0,
     {"1: note: c holds an entity"}},
    // attributes
    {inTrunk("<x type=\"int\" option=\"1,2\" htpp_access=\"r\" max=\"5\">1</x>"),
     1,
     {"2: warning: c.x has an attribute \"option\", which is not read; is \"options\" meant?",
      "2: warning: c.x has an attribute \"htpp_access\"", "2: note: c.x has an attribute \"max\""}},
    // number
    {inTrunk("<m type=\"multiple_instance\">" + std::string{kLeaf} + "</m>"),
     1,
     {"2: error: c.m has no \"number\""}},
    {inTrunk(group("abc", kLeaf)), 1, {"2: error: c.m has number=\"abc\": no instance"}},
    {inTrunk(group("-3", kLeaf)), 1, {"2: error: c.m has number=\"-3\": no instance"}},
    {inTrunk(group("0", kLeaf)), 0, {}},
    {inTrunk(group("12", kLeaf)), 0, {}},
    {inTrunk(group(" +2x", kLeaf)), 1, {"2: warning: c.m has number=\" +2x\": taken as 2"}},
    {inTrunk(group("99999999999", kLeaf)),
     1,
     {"2: warning: c.m has number=\"99999999999\": taken as 2147483647",
      "2: error: c.m goes over the limit of 160 MiB"}},
    // values
    {inTrunk("<x type=\"int\" range=\"0,5\" step=\"5\">6</x>"),
     1,
     {"2: warning: c.x: the value \"6\" must be 0 to 5"}},
    {inTrunk(group("9", "<x type=\"int\" range=\"1-5\">%auto</x>")),
     1,
     {"2: warning: c.m.6.x: the value \"6\" must be 1 to 5 (and in 3 more instances)"}},
    {inTrunk(group("3", "<x type=\"enum\" options=\"a,b\">c</x>")),
     1,
     {"2: warning: c.m.1.x: the value \"c\" must be one of a, b (and in 2 more instances)"}},
    {inTrunk("<x type=\"realtime\" range=\"0,5\">9</x><y type=\"int\" range=\"low\">9</y>"),
     0,
     {"2: note: c.y: range \"low\" is not enforced"}},
    {inTrunk("<x type=\"string\">%auto\n</x>"),
     0,
     {"2: note: c.x: %auto stays", "2: note: c.x: the line breaks"}},
    {inTrunk("<passwd type=\"password\">a=b</passwd>"), 1, {"2: warning: c.passwd: a password"}},
    {inTrunk("<pin type=\"password\">1</pin>\n<a_password type=\"string\"/>"),
     1,
     {"2: warning: c.pin: changes of this secret are logged",
      "3: warning: c.a_password: changes of this secret are logged"}},
    {"<t><IPCAM type=\"trunk\">\n<a type=\"int\">1</a>\n<b type=\"int\">1</b></IPCAM></t>",
     0,
     {"2: note: names that begin with \"ipcam.\" are factory-only: the service does not know them "
      "(2"}},
    // duplicates
    {inTrunk("<x type=\"int\">1</x>\n<x type=\"int\" range=\"0,1\">2</x>"),
     1,
     {"3: error: c.x is defined in line 2 already"}},
    {inTrunk(group("2", kLeaf) + "\n" + group("4", kLeaf)),
     1,
     {"3: error: c.m.number is defined in line 2 already",
      "3: error: c.m.1.x is defined in line 2 already: this one is dropped (and in 1 more "}},
    {inTrunk("<m.3 type=\"branch\">" + std::string{kLeaf} + "</m.3>\n" + group("4", kLeaf)),
     1,
     {"3: error: c.m.3.x is defined in line 2 already: this one is dropped"}},
    // long names
    {inTrunk("<x" + std::string(1020, 'x') + " type=\"int\">1</x" + std::string(1020, 'x') + ">"),
     0,
     {}},
    {inTrunk("<x" + std::string(1021, 'x') + " type=\"int\">1</x" + std::string(1021, 'x') + ">"),
     1,
     {"2: warning: c.xxxx"}},
    {inTrunk("<x" + std::string(1016, 'x') + " type=\"branch\">" + group("1", "") + "</x" +
             std::string(1016, 'x') + ">"),
     1,
     {"2: warning: c.xxx"}},
    // hostile
    {inTrunk(nested(200, "m type=\"multiple_instance\" number=\"10\"", kLeaf)),
     1,
     {"2: error: c.m.m.m.m.m"}},
    {inTrunk(group("400000", "<x type=\"int\" range=\"0,3\">%auto</x>")),
     1,
     {"2: warning: c.m.4.x: the value \"4\" must be 0 to 3 (and in 399996 more instances)"}},
    {inTrunk(nested(250, "b type=\"branch\"", kLeaf)), 0, {}},
    {"<!DOCTYPE t [<!ENTITY e \"" + std::string(9000000, 'e') + "\">]>" +
         inTrunk(numbered(20, " type=\"realtime\" mode=\"&e;\"/>")),
     1,
     {"2: error: c.x18 goes over the limit of 160 MiB on what a tree does not spell out: left out "
      "or "
      "not repeated; so is 1 more element"}},
};

INSTANTIATE_TEST_SUITE_P(Trees, TreeCheck, testing::ValuesIn(kCases));

TEST(TreeCheckOutput, FormsAndStatuses) {
    resetDevice();
    writeFile("/tmp/t", inTrunk("<x type=\"int\" range=\"0,5\">\"</x>"));
    EXPECT_EQ(check("--json /tmp/t").out,
              "{\"file\":\"/tmp/t\",\"parameters\":1,\"errors\":0,\"warnings\":1,\"notes\":0,"
              "\"findings\":[\n{\"line\":2,\"severity\":\"warning\",\"text\":\"c.x: the value "
              "\\\"\\\"\\\" must be a number, 0 to 5\"}\n]}\n");
    EXPECT_EQ(check("- </tmp/t").out.substr(0, 13), "-:2: warning:");
    EXPECT_EQ(check("/tmp/none").status, 5);
    EXPECT_EQ(check("/tmp").err, "kelctl: /tmp: Is a directory\n");
    EXPECT_EQ(check("").status, 2);
    writeFile("/tmp/t", inTrunk(times(70000, "<x/>\n")));
    const std::string many = check("/tmp/t").out;
    EXPECT_EQ(std::count(many.begin(), many.end(), '\n'), 1001);
    EXPECT_NE(many.find(", 70000 warnings, 0 notes, of each the first 1000 shown\n"),
              std::string::npos);
    writeFile("/tmp/t", inTrunk(times(69000, "\n") + "<x>1</x>")); // lines beyond 16 bits
    EXPECT_EQ(check("/tmp/t").out.substr(0, 15), "/tmp/t:69002: w");
}

// The trees that are shipped are clean, and each is what the build makes of it.
TEST(TreeCheckOutput, ExamplesAreClean) {
    for (const char* name : {"neutral_tree.xml", "ext_tree.xml"}) {
        resetDevice();
        writeFile(kTree, readFile(std::string{KELCONF_EXAMPLES "/"} + name));
        const ProgramResult result = check(kTree);
        EXPECT_EQ(result.status, 0) << result.out;
        EXPECT_NE(result.out.find(": " + std::to_string(rowsThatInitBuilds()) + " parameters"),
                  std::string::npos);
    }
}

// Nor is /dev/stdin needed.
TEST(TreeCheck, WaitsForAPipeThatIsSlow) {
    resetDevice();
    writeFile(kTree, inTrunk(kLeaf));
    EXPECT_EQ(
        std::system("{ sleep 0.2; cat /etc/neutral_tree.xml; } | kelctl tree check - >/tmp/said"),
        0);
    EXPECT_EQ(readFile("/tmp/said"), "-: 1 parameter, 0 errors, 0 warnings, 0 notes\n");
}

} // namespace
} // namespace kelconf::test
