// The walk of a tree, and the item list: whole lists of items against tree texts.

#include "text/text.h"
#include "tree/tree_template.h"
#include "tree/tree_walker.h"
#include "tree/xitem.h"

#include <gtest/gtest.h>
#include <libxml/parser.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kelconf::test {
namespace {

// "name|value|type|range|step|options|mode|http_access", without what is empty at the end.
using Rows = std::vector<std::string>;

std::string counter(const std::string& group, const std::string& number) {
    return group + ".number|" + number + "|||||r|r";
}

struct Document {
    std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)> doc;
    explicit Document(std::string_view xml)
        : doc(xmlReadMemory(xml.data(), static_cast<int>(xml.size()), "tree.xml", nullptr, 0),
              xmlFreeDoc) {}
    [[nodiscard]] const xmlNode* root() const { return xmlDocGetRootElement(doc.get()); }
};

struct Walked {
    Rows rows;
    TreeWalkResult result;
};

Walked walkBy(const std::function<TreeWalkResult()>& walker) {
    initXitemList();
    Walked walked{{}, walker()};
    for (std::uint32_t i = 0; const xitem* item = xitemAt(i); ++i) {
        std::string row = item->name;
        for (const char* text : {item->value, item->type, item->range, item->step, item->options,
                                 item->mode, item->http_access}) {
            row.append("|").append(text);
        }
        walked.rows.push_back(row.substr(0, row.find_last_not_of('|') + 1));
    }
    delXitemList();
    return walked;
}

// A trunk t with this inside.
Walked walk(std::string_view inside, std::string_view before = {}) {
    std::string xml(before);
    xml.append("<r><t type='trunk'>").append(inside).append("</t></r>");
    const Document document(xml);
    return walkBy([&] { return parseXmlTree(document.root()); });
}

std::string group(const std::string& name, const std::string& number, const std::string& inside) {
    return "<" + name + " type='multiple_instance' number='" + number + "'>" + inside + "</" +
           name + ">";
}

TEST(TreeWalk, Rules) {
    const std::string name(1100, 'n');
    const std::pair<std::string, Rows> cases[] = {
        {"a<!-- <x type='i'/> -->b<?pi type='i'?>", {}},
        {"<x type='int'/>", {"t.x||int"}},
        {"<x type=''>v</x>", {"t.x|v"}},
        {"<x type='int' range=' 0, 9 ' step='1' options='a;&quot;b' mode='rw' http_access='w'/>",
         {"t.x||int| 0, 9 |1|a;\"b|rw|w"}},
        {"<x type='s'>\n a\tb \n</x>", {"t.x|\n a\tb \n|s"}},
        {"<x type='s'>a&amp;b&#xe9;<![CDATA[<&]]>\xc3\xbc</x>", {"t.x|a&b\xc3\xa9<&\xc3\xbc|s"}},
        {"<x type='s'>a<y type='int'>b<z/>c</y><!--n-->d</x>", {"t.x|abcd|s"}},
        {"<x type='s' range='&out;'>&out;&file;</x>", {"t.x|(inner)|s|(inner)"}},
        {"<x type='trunk'><y type='int'>5</y></x>", {"t.x|5|trunk"}},
        {"<x><y type='int'>5</y></x><z type='branch'><w/></z>", {}},
        {"<x type='Branch'><y type='int'>5</y></x>", {"t.x|5|Branch"}},
        {"<x type='realtime'>on</x>", {"t.x||realtime"}},
        {"<x type='s'>%auto</x>", {"t.x|%auto|s"}},
        {"<x type='a'>1</x><x type='b'>2</x>", {"t.x|1|a", "t.x|2|b"}},
        {group("m", "-3", "<x type='i'/>"), {counter("t.m", "-3")}},
        {group("m", " +2x", "<x type='i'/>"), {counter("t.m", " +2x"), "t.m.1.x||i", "t.m.2.x||i"}},
        {"<m type='multiple_instance'><x type='i'/></m>", {counter("t.m", "")}},
        {group("m", "2147483647", " <!-- none --> "), {counter("t.m", "2147483647")}},
        {group("m", "1",
               "<x type='s' range='%auto'>%auto%auto%Auto%aut</x><b type='branch'>"
               "<x type='s'>%auto</x><s type='realtime'>on</s></b>"),
         {counter("t.m", "1"), "t.m.1.x|11%Auto%aut|s|%auto", "t.m.1.b.x|1|s",
          "t.m.1.b.s||realtime"}},
        {group("a", "2", group("b", "2", "<x type='s'>%auto</x>") + "<y type='s'>%auto</y>"),
         {counter("t.a", "2"), counter("t.a.1.b", "2"), "t.a.1.b.1.x|1|s", "t.a.1.b.2.x|2|s",
          "t.a.1.y|1|s", counter("t.a.2.b", "2"), "t.a.2.b.1.x|1|s", "t.a.2.b.2.x|2|s",
          "t.a.2.y|2|s"}},
        // Only the counter's name is cut.
        {group(name, "1", "<x type='i'/>"),
         {("t." + name).substr(0, 1023) + "|1|||||r|r", "t." + name + ".1.x||i"}},
    };
    for (const auto& [inside, rows] : cases) {
        const Walked walked = walk(inside, "<!DOCTYPE r [<!ENTITY in 'inner'><!ENTITY out '(&in;)'>"
                                           "<!ENTITY file SYSTEM 'file:///etc/hostname'>]>");
        EXPECT_EQ(walked.rows, rows) << inside;
        EXPECT_EQ(walked.result.refused, 0U);
    }
    const Document no_trunk("<r type='trunk'><x type='branch'><y type='i'/></x></r>");
    EXPECT_EQ(walkBy([&] { return parseXmlTree(no_trunk.root()); }).rows, Rows{});
    EXPECT_EQ(walkBy([] { return parseXmlTree(nullptr); }).rows, Rows{});
}

TEST(TreeWalk, RunsCanBeWalkedAlone) {
    const Document document("<r><x type='s'>%auto</x>" + group("m", "1", "<y type='s'>%auto</y>") +
                            "</r>");
    const xmlNode* first = document.root()->children;
    const std::string number = counter("p.m", "1");
    EXPECT_EQ(walkBy([&] { return parseXmlNode("p", first); }).rows,
              (Rows{"p.x|%auto|s", number, "p.m.1.y|1|s"}));
    EXPECT_EQ(walkBy([&] { return parseXmlInstanceNode("p", first, 7); }).rows,
              (Rows{"p.x|7|s", number, "p.m.1.y|1|s"}));
    EXPECT_EQ(walkBy([&] { return expandMultipleInstance("p", first, 1); }).rows,
              (Rows{"p.1.x|1|s", counter("p.1.m", "1"), "p.1.m.1.y|1|s"}));
    EXPECT_EQ(walkBy([&] { return expandMultipleInstance("p", first, -1); }).rows, Rows{});
}

// ---- The limit of 160 MiB on what a tree does not spell out ----

TEST(TreeLimit, OnlyTheGroupThatIsTooLargeIsCut) {
    for (const char* number : {"1000000000", "4294967297", "99999999999999999999"}) {
        const auto [rows, result] =
            walk(group("a", "2", "\n" + group("b", number, "<x type='i'/>") + "<y type='i'/>"));
        EXPECT_EQ(rows, (Rows{counter("t.a", "2"), counter("t.a.1.b", number), "t.a.1.y||i",
                              counter("t.a.2.b", number), "t.a.2.y||i"}));
        EXPECT_EQ(result.refused, 1U);
        EXPECT_EQ(result.refused_name, "t.a.b");
        EXPECT_EQ(result.refused_line, 2);
    }
    const auto [rows, result] =
        walk(group("a", "1000", group("b", "199", "<x type='i'>%auto</x>")));
    EXPECT_EQ(result.refused, 0U) << "200,000 instances are ordinary";
    EXPECT_EQ(rows.size(), 1U + 1000U * 200U);
    EXPECT_EQ(rows.back(), "t.a.1000.b.199.x|199|i");
}

TEST(TreeLimit, EntitiesCountOnceExpanded) {
    std::string uses;
    for (int i = 0; i < 400; ++i) {
        uses += "<x type='s'>&e;</x>";
    }
    const auto [rows, result] =
        walk(uses + "<y type='&e;'/><z type='s'>end</z>",
             "<!DOCTYPE r [<!ENTITY e '" + std::string(1 << 20, 'e') + "'>]>");
    EXPECT_EQ(result.refused, 400U - 159U + 1U);
    EXPECT_EQ(rows.size(), 160U);
    EXPECT_EQ(rows.back(), "t.z|end|s");
}

// Each of 100 levels adds a name as long as libxml2 allows, 250 MB in all.
TEST(TreeLimit, LongNamesCountForEachLeaf) {
    const std::string name(49000, 'n');
    std::string nested;
    for (int i = 0; i < 100; ++i) {
        nested = "<" + name + " type='branch'><l type='i'/>" + nested + "</" + name + ">";
    }
    const auto [rows, result] = walk(nested);
    EXPECT_EQ(rows.size(), 82U);
    EXPECT_EQ(result.refused, 18U);
}

// ---- Texts, and the item list ----

TEST(Texts, AutoTokensCountsAndElements) {
    const char* const tokens[][3] = {{"%auto%auto", "12", "1212"},
                                     {"a%%auto b", "3", "a%3 b"},
                                     {"%aut%auto", "", "%aut"},
                                     {"%autoauto", "%", "%auto"}};
    for (const auto& [text, replacement, result] : tokens) {
        EXPECT_STREQ(OwnedText{replaceAutoToken(text, replacement)}.get(), result) << text;
    }
    const std::pair<const char*, std::int32_t> counts[] = {{"007", 7},
                                                           {" \t\n+5", 5},
                                                           {"-5", -5},
                                                           {"+-5", 0},
                                                           {"0x10", 0},
                                                           {"1 2", 1},
                                                           {"\xc2\xb2", 0},
                                                           {"2147483648", 2147483647},
                                                           {"2147483646", 2147483646},
                                                           {"-99999999999999999999", -2147483647}};
    for (const auto& [text, count] : counts) {
        EXPECT_EQ(parseInstanceCount(text), count) << text;
    }
    const Document document("<!DOCTYPE r [<!ATTLIST r d CDATA 'set'>]><r a='1&lt;2'>b<c>d</c></r>");
    const xmlNode* root = document.root();
    EXPECT_STREQ(OwnedText{sxmlGetProp(root, "a")}.get(), "1<2");
    EXPECT_STREQ(OwnedText{sxmlGetProp(root, "b")}.get(), "");
    EXPECT_STREQ(OwnedText{sxmlGetProp(root, "d")}.get(), "set");
    EXPECT_STREQ(OwnedText{sxmlGetProp(nullptr, "a")}.get(), "");
    EXPECT_STREQ(OwnedText{sxmlNodeGetContent(root)}.get(), "bd");
}

TEST(ItemList, SearchFindsAndMarksEveryItemOnceSorted) {
    for (int round = 0; round < 2; ++round) { // destroyed, it can be filled again
        ASSERT_EQ(initXitemList(), 0);
        EXPECT_EQ(searchXitemElement("a"), nullptr);
        std::vector<std::string> names;
        for (int size = 1; size <= 40; ++size) {
            names.push_back("n" + std::to_string(size * 7919 % 1000));
            xitem item{};
            item.name = newText(names.back());
            ASSERT_EQ(addXitemElement(&item), 1);
            ASSERT_EQ(CheckXitemListLength(), size);
            ASSERT_EQ(sortXitem(), 0);
            for (const auto& name : names) {
                ASSERT_NE(searchXitemElement(name.c_str()), nullptr) << name;
            }
            for (const char* absent : {"", "N919", "n", "n1000", "zz"}) {
                ASSERT_EQ(searchAndMarkXitem(absent), nullptr) << absent << " of " << size;
            }
        }
        std::sort(names.begin(), names.end());
        EXPECT_EQ(searchAndMarkXitem(names[7].c_str()), xitemAt(7));
        for (std::uint32_t i = 0; i < 40; ++i) {
            EXPECT_EQ(xitemAt(i)->name, names[i]);
            EXPECT_EQ(xitemAt(i)->mark, i == 7 ? 1 : 0);
        }
        EXPECT_EQ(xitemSeek(nullptr, "a"), 0);
        delXitemList();
    }
}

} // namespace
} // namespace kelconf::test
