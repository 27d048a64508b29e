// The rules that clients enforce: a table of forms, and the example trees against their own.
#include "catalog/value_rules.h"
#include "tree/tree_file.h"
#include "tree/tree_walker.h"
#include "tree/xitem.h"

#include <gtest/gtest.h>

#include <string>

namespace kelconf {
namespace {

struct Case {
    ValueRule rule;   // type, range, step, options
    const char* good; // values parted by ";"
    const char* bad;
    const char* broken;       // how the complaint about each bad value begins
    const char* unknown = ""; // what is in no known form
};

std::vector<std::string> split(std::string_view text) {
    std::vector<std::string> parts{""};
    for (const char c : text) {
        if (c == ';') {
            parts.emplace_back();
        } else {
            parts.back() += c;
        }
    }
    return parts;
}

void check(const Case& each) {
    SCOPED_TRACE(std::string{each.rule.range} + "/" + std::string{each.rule.options});
    EXPECT_EQ(unknownForm(each.rule), each.unknown);
    for (const std::string& value : split(each.good)) {
        EXPECT_EQ(brokenRule(each.rule, value), "") << '"' << value << '"';
    }
    if (*each.broken == 0) {
        return;
    }
    for (const std::string& value : split(each.bad)) {
        const std::string broken = brokenRule(each.rule, value);
        EXPECT_TRUE(broken.starts_with(each.broken)) << '"' << value << "\" " << broken;
    }
}

TEST(Rules, Forms) {
    const char* const one_to_ten = "0;7;007;100;-0;100.0;0.000";
    const Case cases[] = {
        {{"int", "0,100", "", ""},
         one_to_ten,
         "-1;101;100.5;-0.000000000000000001",
         "must be 0 to 100"},
        {{"int", " 0 - 100 ", "", ""}, one_to_ten, "-1;101", "must be 0 to 100"},
        {{"int", "0,100", "", ""},
         "5",
         "+5;1e1; 5;5 ;;abc;0x10;5.;.5;1,5;--5;5-",
         "must be a number, 0 to 100"},
        {{"int", "0,100", "", ""}, "5", "5.5;0.1", "must be a whole number"},
        {{"int", "0,100", "", ""}, "5", "999999999999999999", "must be 0 to 100"},
        {{"int", "0,100", "", ""},
         "5",
         "99999999999999999999999999999999999999999;0.0000000000000000001",
         "must be a number"},
        {{"int", "-30,30", "", ""}, "-30;0;30", "-31;31", "must be -30 to 30"},
        {{"int", "-30-30", "", ""}, "-30;30", "-31;31", "must be -30 to 30"},
        {{"int", "-30--5", "", ""}, "-30;-5", "-31;-4;0", "must be -30 to -5"},
        {{"float", "0.4,2.6", "0.1", ""},
         "0.4;0.7;1;1.0;1.10;2.6",
         "0.45;1.05",
         "must be 0.4 plus a multiple of 0.1"},
        {{"float", "-2.0,2.0", "0.5", ""},
         "-2;-1.5;0.0;2",
         "0.25;-1.9",
         "must be -2.0 plus a multiple of 0.5"},
        {{"float", "0,1", "0.1", ""}, "0.3;0.6;0.7", "0.35", "must be a multiple of 0.1"},
        {{"int", "36,48", "3", ""}, "36;39;48", "37;47", "must be 36 plus a multiple of 3"},
        {{"int", "0,", "", ""}, "0;123456789012345678", "-1", "must be at least 0"},
        {{"int", ",9", "", ""}, "-100;9", "10", "must be at most 9"},
        {{"", "", "5", ""}, "0;-5;15", "1", "must be a multiple of 5"},
        {{"", "", "5", ""}, "0", "x", "must be a number"},
        {{"enum", "", "", "50hz,60hz"},
         "50hz;60hz",
         "50;50HZ;; 50hz;50hz,60hz",
         "must be one of 50hz, 60hz"},
        {{"enum", "", "", " a | b,c "}, "a;b,c", "b;c; a ", "must be one of a, b,c"},
        {{"enum", "", "", "2.4,5,auto"}, "2.4;5;auto", "2.40;5.0", "must be one of 2.4, 5, auto"},
        {{"", "", "", "a,,b"}, ";a;b", "c", "must be one of a, nothing, b"},
        {{"int", "16,48", "", "auto,off"}, "auto;off;16;48", "15;49", "must be 16 to 48"},
        {{"int", "16,48", "", "auto,off"}, "auto", "x;", "must be one of auto, off, or 16 to 48"},
        {{"int", "16,48", "", "15,16,24"}, "16;24", "17", "must be one of 15, 16, 24"},
        {{"int", "16,48", "", "15,16,24"}, "16", "15", "must be 16 to 48"},
        {{"int", "16,48", "", "auto"},
         "auto;17",
         "x;",
         "must be a number, 16 to 48",
         "options \"auto\""},
        // what is not understood, and types whose range is no number's
        {{"int", "", "", ""}, ";x;1.5", "", ""},
        {{"int", "abc", "0", "just one"}, ";x;1.5", "", "", "range \"abc\""},
        {{"int", "100,0", "-1", ""}, "500", "", "", "range \"100,0\""},
        {{"int", "-5", "", ""}, "500", "", "", "range \"-5\""},
        {{"int", "5-", "", ""}, "500", "", "", "range \"5-\""},
        {{"int", "1,2,3", "x", ""}, "500", "", "", "range \"1,2,3\""},
        {{"int", "", "1e5", ""}, "500", "", "", "step \"1e5\""},
        {{"string", "1,32", "2", ""}, "a name", "", "", "range \"1,32\""},
        {{"password", ",", "", ""}, "geheim", "", "", "range \",\""},
    };
    for (const Case& each : cases) {
        check(each);
    }
    EXPECT_LT(brokenRule({"", "", "", "a,b" + std::string(5000, ',')}, "x").size(), 2000U);
}

// What a camera maker ships must be what a user may set.
class Shipped : public testing::TestWithParam<const char*> {};

TEST_P(Shipped, KeepsItsOwnRules) {
    const XmlDoc tree = readTreeFile((std::string{KELCONF_EXAMPLES "/"} + GetParam()).c_str());
    ASSERT_TRUE(tree);
    ASSERT_EQ(initXitemList(), 0);
    parseXmlTree(xmlDocGetRootElement(tree.get()));
    int ruled = 0;
    for (std::int32_t i = 0; i < CheckXitemListLength(); ++i) {
        const xitem& item = *xitemAt(static_cast<std::uint32_t>(i));
        const ValueRule rule{item.type, item.range, item.step, item.options};
        ruled += rule.range.empty() && rule.options.empty() ? 0 : 1;
        EXPECT_EQ(brokenRule(rule, item.value) + unknownForm(rule), "") << item.name;
    }
    EXPECT_GT(ruled, 20);
    delXitemList();
}

INSTANTIATE_TEST_SUITE_P(Examples, Shipped, testing::Values("neutral_tree.xml", "ext_tree.xml"));

} // namespace
} // namespace kelconf
