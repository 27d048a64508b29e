// The walk of a tree, and the item list: whole lists of items against tree texts.

#include "items.h"
#include "text/text.h"
#include "tree/tree_template.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace kelconf::test {
namespace {

Row leaf(std::string name, std::string value, std::string type) {
    return {std::move(name), std::move(value), std::move(type), "", "", "", "", ""};
}

Row counter(std::string name, std::string value) {
    return {std::move(name), std::move(value), "", "", "", "", "r", "r"};
}

TEST(TreeWalk, WorkedExample) {
    const auto walked = walk(R"(<device>
      <ipcam type="trunk">
        <video type="branch"><brightness type="int" range="X">50</brightness></video>
        <stream type="multiple_instance" number="2">
          <label type="string">Stream %auto</label>
          <codec type="branch"><profile type="int">1</profile></codec>
          <state type="realtime">idle</state>
        </stream>
        <notes>anything <x type="int">1</x></notes>
      </ipcam>
      <extra type="branch"><y type="int">1</y></extra>
    </device>)");
    const std::vector<Row> expected = {
        {"ipcam.video.brightness", "50", "int", "X", "", "", "", ""},
        counter("ipcam.stream.number", "2"),
        leaf("ipcam.stream.1.label", "Stream 1", "string"),
        leaf("ipcam.stream.1.codec.profile", "1", "int"),
        leaf("ipcam.stream.1.state", "", "realtime"),
        leaf("ipcam.stream.2.label", "Stream 2", "string"),
        leaf("ipcam.stream.2.codec.profile", "1", "int"),
        leaf("ipcam.stream.2.state", "", "realtime"),
    };
    EXPECT_EQ(walked.rows, expected);
    EXPECT_EQ(walked.result.refused, 0U);
}

struct Case {
    const char* what;
    const char* inside; // of a trunk named t
    std::vector<Row> rows;
};

void PrintTo(const Case& c, std::ostream* out) {
    *out << c.what;
}

class TreeRules : public testing::TestWithParam<Case> {};

TEST_P(TreeRules, Yields) {
    const auto walked = walk(std::string("<r><t type=\"trunk\">") + GetParam().inside + "</t></r>");
    EXPECT_EQ(walked.rows, GetParam().rows);
}

const Case kRules[] = {
    {"an empty trunk", "", {}},
    {"text and comments between elements", "a<!-- <x type='i'/> -->b<?pi type='i'?>", {}},
    {"a bare leaf has empty texts", "<x type='int'/>", {leaf("t.x", "", "int")}},
    {"an empty type is a type", "<x type=''>v</x>", {leaf("t.x", "v", "")}},
    {"every attribute, unchanged",
     "<x type='int' range=' 0, 9 ' step='1' options='a|&quot;b' mode='rw' http_access='w' z='q'/>",
     {{"t.x", "", "int", " 0, 9 ", "1", "a|\"b", "rw", "w"}}},
    {"white space and line breaks stay",
     "<x type='s'>\n a\tb \n</x>",
     {leaf("t.x", "\n a\tb \n", "s")}},
    {"references, CDATA and UTF-8",
     "<x type='s'>a&amp;b&#xe9;<![CDATA[<&]]>\xc3\xbc</x>",
     {leaf("t.x", "a&b\xc3\xa9<&\xc3\xbc", "s")}},
    {"typed elements in a leaf are its text",
     "<x type='s'>a<y type='int'>b<z/>c</y><!--n-->d</x>",
     {leaf("t.x", "abcd", "s")}},
    {"trunk below a trunk is a leaf type",
     "<x type='trunk'><y type='int'>5</y></x>",
     {leaf("t.x", "5", "trunk")}},
    {"no type skips the subtree", "<x><y type='int'>5</y></x><z type='branch'><w/></z>", {}},
    {"types are case-sensitive",
     "<x type='Branch'><y type='int'>5</y></x>",
     {leaf("t.x", "5", "Branch")}},
    {"realtime has no value", "<x type='realtime'>on</x>", {leaf("t.x", "", "realtime")}},
    {"%auto outside instances stays", "<x type='s'>%auto</x>", {leaf("t.x", "%auto", "s")}},
    {"one name twice yields two items",
     "<x type='a'>1</x><x type='b'>2</x>",
     {leaf("t.x", "1", "a"), leaf("t.x", "2", "b")}},
    {"number 0",
     "<m type='multiple_instance' number='0'><x type='i'/></m>",
     {counter("t.m.number", "0")}},
    {"number -3",
     "<m type='multiple_instance' number='-3'><x type='i'/></m>",
     {counter("t.m.number", "-3")}},
    {"number abc",
     "<m type='multiple_instance' number='abc'><x type='i'/></m>",
     {counter("t.m.number", "abc")}},
    {"number with sign, white space and rest",
     "<m type='multiple_instance' number=' +2x'><x type='i'/></m>",
     {counter("t.m.number", " +2x"), leaf("t.m.1.x", "", "i"), leaf("t.m.2.x", "", "i")}},
    {"no number at all",
     "<m type='multiple_instance'><x type='i'/></m>",
     {counter("t.m.number", "")}},
    {"instances without children",
     "<m type='multiple_instance' number='3'/>",
     {counter("t.m.number", "3")}},
    {"instances of white space, however many",
     "<m type='multiple_instance' number='2147483647'>  <!-- none -->  </m>",
     {counter("t.m.number", "2147483647")}},
    {"tokens in a row, case and attributes",
     "<m type='multiple_instance' number='1'><x type='s' range='%auto'>%auto%auto%Auto%aut</x></m>",
     {counter("t.m.number", "1"), {"t.m.1.x", "11%Auto%aut", "s", "%auto", "", "", "", ""}}},
    {"branches carry the instance on",
     "<m type='multiple_instance' number='1'><b type='branch'><x type='s'>%auto</x></b></m>",
     {counter("t.m.number", "1"), leaf("t.m.1.b.x", "1", "s")}},
    {"nested instances: the innermost number",
     "<a type='multiple_instance' number='2'><b type='multiple_instance' number='2'>"
     "<x type='s'>%auto</x></b><y type='s'>%auto</y></a>",
     {counter("t.a.number", "2"), counter("t.a.1.b.number", "2"), leaf("t.a.1.b.1.x", "1", "s"),
      leaf("t.a.1.b.2.x", "2", "s"), leaf("t.a.1.y", "1", "s"), counter("t.a.2.b.number", "2"),
      leaf("t.a.2.b.1.x", "1", "s"), leaf("t.a.2.b.2.x", "2", "s"), leaf("t.a.2.y", "2", "s")}},
};

INSTANTIATE_TEST_SUITE_P(Table, TreeRules, testing::ValuesIn(kRules));

TEST(TreeWalk, NoTrunkNoItem) {
    EXPECT_TRUE(walk("<r type='trunk'><x type='branch'><y type='i'/></x></r>").rows.empty());
    initXitemList();
    EXPECT_EQ(parseXmlTree(nullptr).refused, 0U);
    EXPECT_EQ(CheckXitemListLength(), 0);
    delXitemList();
}

TEST(TreeWalk, OnlyTheCounterNameIsCut) {
    const std::string longName(1100, 'n');
    const auto walked =
        walk("<r><t type='trunk'><" + longName +
             " type='multiple_instance' number='1'><x type='i'/></" + longName + "></t></r>");
    ASSERT_EQ(walked.rows.size(), 2U);
    EXPECT_EQ(walked.rows[0].name, ("t." + longName).substr(0, 1023));
    EXPECT_EQ(walked.rows[1].name, "t." + longName + ".1.x");
}

TEST(TreeWalk, RunsCanBeWalkedAlone) {
    const Document document("<r><x type='s'>%auto</x><m type='multiple_instance' number='1'>"
                            "<y type='s'>%auto</y></m></r>");
    const xmlNode* first = document.root()->children;
    const std::vector<Row> tail = {counter("p.m.number", "1"), leaf("p.m.1.y", "1", "s")};
    const auto run = [&](auto&& walker) {
        initXitemList();
        walker();
        auto rows = rowsOfList();
        delXitemList();
        return rows;
    };
    EXPECT_EQ(run([&] { parseXmlNode("p", first); }),
              (std::vector<Row>{leaf("p.x", "%auto", "s"), tail[0], tail[1]}));
    EXPECT_EQ(run([&] { parseXmlInstanceNode("p", first, 7); }),
              (std::vector<Row>{leaf("p.x", "7", "s"), tail[0], tail[1]}));
    EXPECT_EQ(run([&] { expandMultipleInstance("p", first, 1); }),
              (std::vector<Row>{leaf("p.1.x", "1", "s"), counter("p.1.m.number", "1"),
                                leaf("p.1.m.1.y", "1", "s")}));
    EXPECT_TRUE(run([&] { expandMultipleInstance("p", first, -1); }).empty());
}

// ---- The limit on what a tree does not spell out ----

TEST(TreeLimit, RepetitionOverTheLimitKeepsTheRestOfTheTree) {
    for (const char* number : {"2147483647", "4294967297", "99999999999999999999"}) {
        const auto walked = walk(std::string("<r><t type='trunk'><a type='i'>1</a>\n"
                                             "<m type='multiple_instance' number='") +
                                 number + "'><x type='i'/></m><b type='i'>2</b></t></r>");
        EXPECT_EQ(walked.rows,
                  (std::vector<Row>{leaf("t.a", "1", "i"), counter("t.m.number", number),
                                    leaf("t.b", "2", "i")}));
        EXPECT_EQ(walked.result.refused, 1U);
        EXPECT_EQ(walked.result.refused_name, "t.m");
        EXPECT_EQ(walked.result.refused_line, 2);
    }
}

TEST(TreeLimit, OnlyTheGroupThatIsTooLargeIsCut) {
    const auto walked = walk("<r><t type='trunk'><a type='multiple_instance' number='2'>"
                             "<b type='multiple_instance' number='1000000000'><x type='i'/></b>"
                             "<y type='i'/></a></t></r>");
    EXPECT_EQ(walked.rows,
              (std::vector<Row>{counter("t.a.number", "2"), counter("t.a.1.b.number", "1000000000"),
                                leaf("t.a.1.y", "", "i"), counter("t.a.2.b.number", "1000000000"),
                                leaf("t.a.2.y", "", "i")}));
    EXPECT_EQ(walked.result.refused_name, "t.a.b");
}

TEST(TreeLimit, TwoHundredThousandInstancesAreOrdinary) {
    const auto walked = walk("<r><t type='trunk'><a type='multiple_instance' number='1000'>"
                             "<b type='multiple_instance' number='199'><x type='i'>%auto</x></b>"
                             "</a></t></r>");
    EXPECT_EQ(walked.result.refused, 0U);
    EXPECT_EQ(walked.rows.size(), 1U + 1000U * 200U);
    EXPECT_EQ(walked.rows.back().name, "t.a.1000.b.199.x");
}

TEST(TreeLimit, EntitiesCountOnceExpanded) {
    const std::string large(1 << 20, 'e');
    std::string xml = "<!DOCTYPE r [<!ENTITY e '" + large + "'>]><r><t type='trunk'>";
    for (int i = 0; i < 400; ++i) {
        xml += "<x type='s'>&e;</x>";
    }
    xml += "<y type='&e;'/><z type='s'>end</z></t></r>";
    const auto walked = walk(xml);
    const std::size_t whole = kExpansionLimit / (large.size() + 2);
    EXPECT_EQ(walked.result.refused, 400 - whole + 1);
    EXPECT_EQ(walked.rows.size(), whole + 1);
    EXPECT_EQ(walked.rows.front(), leaf("t.x", large, "s"));
    EXPECT_EQ(walked.rows.back(), leaf("t.z", "end", "s"));
}

// ---- Texts ----

TEST(AutoToken, Table) {
    struct {
        const char *text, *replacement, *result;
    } const cases[] = {
        {"", "1", ""},
        {"%auto", "12", "12"},
        {"%auto%auto", "12", "1212"},
        {"a%auto b", "3", "a3 b"},
        {"%%auto", "3", "%3"},
        {"%aut%auto", "", "%aut"},
        {"%AUTO", "3", "%AUTO"},
        {"%autoauto", "%", "%auto"},
    };
    for (const auto& c : cases) {
        const OwnedText result{replaceAutoToken(c.text, c.replacement)};
        EXPECT_STREQ(result.get(), c.result) << c.text;
    }
}

TEST(InstanceCount, Table) {
    struct {
        const char* text;
        std::int32_t count;
    } const cases[] = {
        {"", 0},
        {"7", 7},
        {"007", 7},
        {" \t\n+5", 5},
        {"-5", -5},
        {"+-5", 0},
        {"2x", 2},
        {"0x10", 0},
        {"1 2", 1},
        {"\xc2\xb2", 0},
        {"2147483647", 2147483647},
        {"2147483648", 2147483647},
        {"-99999999999999999999", -2147483647},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(parseInstanceCount(c.text), c.count) << c.text;
    }
}

TEST(ElementTexts, AbsentIsEmpty) {
    const Document document("<!DOCTYPE r [<!ATTLIST r d CDATA 'default'><!ENTITY x SYSTEM "
                            "'file:///etc/hostname'>]><r a='1&lt;2'>b<c>d</c>&x;</r>");
    const OwnedText a{sxmlGetProp(document.root(), "a")};
    const OwnedText none{sxmlGetProp(document.root(), "b")};
    const OwnedText preset{sxmlGetProp(document.root(), "d")};
    const OwnedText ofNull{sxmlGetProp(nullptr, "a")};
    const OwnedText content{sxmlNodeGetContent(document.root())};
    EXPECT_STREQ(a.get(), "1<2");
    EXPECT_STREQ(none.get(), "");
    EXPECT_STREQ(preset.get(), "default");
    EXPECT_STREQ(ofNull.get(), "");
    EXPECT_STREQ(content.get(), "bd");
}

// ---- The item list ----

class ItemList : public testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(initXitemList(), 0); }
    void TearDown() override { delXitemList(); }

    static void add(const char* name) {
        const xitem item{newText(name), newText("v"), newText("t"),
                         newText(""),   newText(""),  newText(""),
                         newText("m"),  newText(""),  0};
        ASSERT_EQ(addXitemElement(&item), 1);
    }
};

TEST_F(ItemList, SearchFindsEveryItemOnceSorted) {
    EXPECT_EQ(searchXitemElement("a"), nullptr);
    std::vector<std::string> names;
    for (int size = 1; size <= 40; ++size) {
        names.push_back("n" + std::to_string(size * 7919 % 1000));
        add(names.back().c_str());
        ASSERT_EQ(sortXitem(), 0);
        for (const auto& name : names) {
            ASSERT_NE(searchXitemElement(name.c_str()), nullptr) << name << " of " << size;
        }
        for (const char* absent : {"", "N1", "n", "n1000", "zz"}) {
            ASSERT_EQ(searchXitemElement(absent), nullptr) << absent << " of " << size;
        }
    }
    std::sort(names.begin(), names.end());
    const auto rows = rowsOfList();
    for (std::size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(rows[i].name, names[i]);
    }
}

TEST_F(ItemList, MarksOnlyWhatItFinds) {
    add("b");
    add("a");
    sortXitemList();
    EXPECT_EQ(searchAndMarkXitem("c"), nullptr);
    ASSERT_NE(searchAndMarkXitem("b"), nullptr);
    EXPECT_EQ(xitemAt(0)->mark, 0);
    EXPECT_EQ(xitemAt(1)->mark, 1);
    EXPECT_NE(xitemSeek(xitemAt(0), "a"), 0);
    EXPECT_EQ(xitemSeek(xitemAt(0), "A"), 0);
    EXPECT_EQ(xitemSeek(nullptr, "a"), 0);
    EXPECT_EQ(xitemAt(2), nullptr);
}

TEST_F(ItemList, CanBeFilledAgainAfterDestruction) {
    add("a");
    delXitemList();
    ASSERT_EQ(initXitemList(), 0);
    EXPECT_EQ(CheckXitemListLength(), 0);
    add("b");
    EXPECT_EQ(CheckXitemListLength(), 1);
}

} // namespace
} // namespace kelconf::test
