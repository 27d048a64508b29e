// The documents of the bus: exact bytes, the same as libxml2's own dump for any text, and what
// the parsers make of good and of hostile requests.

#include "bus/bus_xml.h"
#include "bus/xml_dump.h"
#include "bus/xml_writer.h"
#include "live_values.h"
#include "service/request_lists.h"
#include "support/device_log.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstring>
#include <random>

namespace kelconf::test {
namespace {

const std::string kHead = "<?xml version=\"1.0\"?>\n";

// What a builder makes: build(&length) returns the bytes.
template <typename Build>
std::string built(Build build) {
    std::int32_t length = -1;
    const OwnedText document{build(&length)};
    return document ? std::string(document.get(), static_cast<std::size_t>(length)) : "(null)";
}

class BusXml : public testing::Test {
  protected:
    void SetUp() override { emptyLists(); }
    void TearDown() override { emptyLists(); }
};

void addChange(simlist& list, const char* name, const char* value, const char* prev) {
    const ChangeRecord change{newText(name), newText(value),
                              prev == nullptr ? nullptr : newText(prev)};
    simlist_append(&list, &change);
}

simlist changeList() {
    simlist list;
    simlist_init(&list);
    simlist_attributes_copy(
        &list, [](const void*) { return sizeof(ChangeRecord); }, 1);
    return list;
}

// Those of the answers and of single events are compared at the endpoints (daemon/bus_test.cpp).
TEST_F(BusXml, BuildersGiveTheExactDocuments) {
    EXPECT_EQ(built([](auto* n) { return genGetRequestXML("N", n); }),
              kHead + "<GET_ACTION><parameter name=\"N\"/></GET_ACTION>\n");
    EXPECT_EQ(built([](auto* n) { return genGetAllRequestXML(n); }), kHead + "<GET_ALL_ACTION/>\n");
    EXPECT_EQ(built([](auto* n) { return genSetRequestXML("N", "V", n); }),
              kHead + "<SET_ACTION><parameter name=\"N\">V</parameter></SET_ACTION>\n");
    EXPECT_EQ(
        built([](auto* n) { return genEventXML("N", "", nullptr, n); }),
        kHead +
            "<EVENT_ACTION><parameter name=\"N\" prev_value=\"\"></parameter></EVENT_ACTION>\n");
    addLive("wlan", "");
    addQryGroupElementWithName("wlan");
    testing::internal::CaptureStdout();
    EXPECT_EQ(built([](auto* n) { return genGetGroupReponseXML(n); }),
              kHead + "<GET_RESPONSE_GROUP_ACTION><parameter name=\"wlan\"></parameter>"
                      "</GET_RESPONSE_GROUP_ACTION>\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "bus_xml 375 CheckParamListLength 1 \n");
}

TEST_F(BusXml, BatchesKeepTheirOrderAndGiveUpTheirTexts) {
    simlist list = changeList();
    EXPECT_EQ(built([&](auto* n) { return genMultipleEventXML(&list, n); }),
              kHead + "<EVENT_ACTION/>\n");
    addChange(list, "a", "1", "0");
    addChange(list, "b", "<", nullptr);
    addChange(list, "a", "2", "1");
    EXPECT_EQ(built([&](auto* n) { return genMultipleEventXML(&list, n); }),
              kHead + "<EVENT_ACTION><parameter name=\"a\" prev_value=\"0\">1</parameter>"
                      "<parameter name=\"b\" prev_value=\"\">&lt;</parameter>"
                      "<parameter name=\"a\" prev_value=\"1\">2</parameter></EVENT_ACTION>\n");
    EXPECT_EQ(simlist_size(&list), 3U); // a leak of a text is the leak checker's to find
    simlist_destroy(&list);
}

// ---- The writer against libxml2's own dump ----

std::string dumped(const std::vector<BusParameter>& parameters) {
    const auto walk = [&](const ParameterSink& sink) {
        for (const BusParameter& parameter : parameters) {
            sink(parameter);
        }
    };
    return built([&](auto* n) { return dumpWithLibrary("ROOT", walk, n); });
}

// The writer's own document; "(refused)" when it leaves the text to the library.
std::string written(const std::vector<BusParameter>& parameters) {
    XmlWriter writer{"ROOT", 8};
    for (const BusParameter& parameter : parameters) {
        if (!writer.add(parameter)) {
            return "(refused)";
        }
    }
    return built([&](auto* n) { return writer.finish(n).release(); });
}

void appendUtf8(std::string& out, unsigned c) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

bool xmlCharacter(unsigned c) {
    return c == 9 || c == 10 || c == 13 || (c >= 0x20 && c < 0xD800) ||
           (c >= 0xE000 && c < 0xFFFE) || (c >= 0x10000 && c <= 0x10FFFF);
}

TEST(Writer, GivesTheLibrarysBytesForEveryCharacter) {
    for (unsigned c = 1; c <= 0x10FFFF; c += c < 0x3000 || (c > 0xD000 && c < 0x10100) ? 1 : 61) {
        if (!xmlCharacter(c)) {
            continue;
        }
        std::string value = "a";
        appendUtf8(value, c);
        const std::vector<BusParameter> parameters{{value.c_str(), value.c_str(), value.c_str()}};
        ASSERT_EQ(written(parameters), dumped(parameters)) << "U+" << std::hex << c;
    }
}

// Never other bytes than the library's: either the same, or left to the library.
TEST(Writer, NeverDiffersFromTheLibraryOnHostileTexts) {
    constexpr std::string_view kMarks = "<>&\"'\n\r\t ;#x]]>aZ09.%\x7f";
    std::mt19937 random{20240611};
    const auto pick = [&](unsigned n) { return static_cast<unsigned>(random() % n); };
    int refused = 0;
    int same = 0;
    for (int round = 0; round < 30000; ++round) {
        std::vector<std::string> texts(3);
        const unsigned style = pick(4);
        for (std::string& value : texts) {
            const unsigned length = pick(50) == 0 ? pick(9000) : pick(40);
            while (value.size() < length) {
                if (style == 0) {
                    value += static_cast<char>(1 + pick(255)); // any byte
                } else if (style == 1) {
                    value += kMarks[pick(static_cast<unsigned>(kMarks.size()))];
                } else {
                    const unsigned c = pick(3) == 0 ? pick(0x110000) : 0x20 + pick(0x500);
                    appendUtf8(value, xmlCharacter(c) ? c : 'q');
                }
                if (style == 3 && pick(200) == 0) {
                    value += static_cast<char>(0x80 + pick(0x80));
                }
                if (value.back() == '\0') {
                    value.pop_back();
                }
            }
        }
        const char* prev = pick(2) == 0 ? nullptr : texts[1].c_str();
        const char* value = pick(8) == 0 ? nullptr : texts[2].c_str();
        const std::vector<BusParameter> parameters{{texts[0].c_str(), prev, value},
                                                   {"next", nullptr, "v"}};
        const std::string own = written(parameters);
        if (own == "(refused)") {
            ++refused;
        } else {
            ++same;
            ASSERT_EQ(own, dumped(parameters));
        }
    }
    EXPECT_GT(refused, 1000);
    EXPECT_GT(same, 10000);
}

TEST_F(BusXml, OddStoredTextsGiveTheLibrarysDocument) {
    for (const std::string odd : {"\xff",
                                  "a\x01"
                                  "b",
                                  "\xed\xa0\x80", "cut \xe2\x82", "\xc0\x80"}) {
        const std::string document =
            built([&](auto* n) { return genEventXML("n", odd.c_str(), odd.c_str(), n); });
        std::string reference = dumped({{"n", odd.c_str(), odd.c_str()}});
        for (const auto& [from, to] :
             {std::pair{"<ROOT>", "<EVENT_ACTION>"}, std::pair{"</ROOT>", "</EVENT_ACTION>"}}) {
            const std::size_t at = reference.find(from);
            ASSERT_NE(at, std::string::npos) << reference;
            reference.replace(at, std::strlen(from), to);
        }
        EXPECT_EQ(document, reference);
    }
}

TEST_F(BusXml, LongValuesAreWrittenWhole) {
    const std::string value(10 * 1024 * 1024, '<');
    const std::string document =
        built([&](auto* n) { return genSetRequestXML("n", value.c_str(), n); });
    EXPECT_EQ(document.size(), kHead.size() +
                                   std::strlen("<SET_ACTION><parameter name=\"n\">"
                                               "</parameter></SET_ACTION>\n") +
                                   value.size() * 4);
}

// ---- Parsers ----

std::int32_t parseSet(const std::string& request) {
    return parseSetRequestXML(request.data(), static_cast<std::int32_t>(request.size()));
}

using Pairs = std::vector<std::pair<std::string, std::string>>;

Pairs setPairs() {
    Pairs pairs;
    for (std::uint32_t i = 0; const AnswerElement* element = setAnswerAt(i); ++i) {
        pairs.emplace_back(element->name, element->value);
    }
    delSetAnswerElement();
    return pairs;
}

struct SetCase {
    const char* request;
    std::int32_t code;
    Pairs pairs;
};

TEST_F(BusXml, SetRequestsAreReadAsWritten) {
    const SetCase cases[] = {
        {"<SET_ACTION><parameter name='N'>V</parameter></SET_ACTION>", 0, {{"N", "V"}}},
        {"<SET_ACTION_DIRECT/>", 1, {}},
        {"<SET_ACTION_NO_DB><x name='a'/><y name='b'>2</y></SET_ACTION_NO_DB>",
         2,
         {{"a", ""}, {"b", "2"}}},
        {"<SET_ACTION>\n <p name='a'>1<b>2<c>3</c></b>4</p>\n <!-- c --> <?pi?></SET_ACTION>",
         0,
         {{"a", "1234"}}},
        {"<SET_ACTION><p>no name</p><p name=''>empty</p><p "
         "name='a'><![CDATA[<&]]></p></SET_ACTION>",
         0,
         {{"", "empty"}, {"a", "<&"}}},
        {"<SET_ACTION><p name='a&amp;&#65;'>&lt;&#xe9;</p></SET_ACTION>",
         0,
         {{"a&A", "<\xc3\xa9"}}},
        {"<?xml version='1.0' encoding='ISO-8859-1'?><SET_ACTION><p name='a'>\xe9</p></SET_ACTION>",
         0,
         {{"a", "\xc3\xa9"}}},
        {"<set_action><p name='a'>1</p></set_action>", 3, {}},
        {"<SET_ACTION><p name='a'>1</p>", 3, {}},
        {"<SET_ACTION><p name='a'>\xff</p></SET_ACTION>", 3, {}},
        {"<SET_ACTION><p name='a'>1</p></SET_ACTION>junk", 3, {}},
        {"<!DOCTYPE SET_ACTION><SET_ACTION><p name='a'>1</p></SET_ACTION>", 3, {}},
        {"<!DOCTYPE x [<!ENTITY e 'v'>]><SET_ACTION><p name='a'>&e;</p></SET_ACTION>", 3, {}},
        {"<!DOCTYPE x SYSTEM 'file:///etc/passwd'><SET_ACTION><p name='a'>1</p></SET_ACTION>",
         3,
         {}},
        {"not xml", 3, {}},
        {"", 3, {}},
    };
    for (const SetCase& c : cases) {
        EXPECT_EQ(parseSet(c.request), c.code) << c.request;
        EXPECT_EQ(setPairs(), c.pairs) << c.request;
    }
    EXPECT_EQ(parseSetRequestXML(nullptr, 5), 3);
}

TEST_F(BusXml, ForeignRootsAreLogged) {
    DeviceLog log;
    const std::string request = "<Set_Action/>";
    const auto n = static_cast<std::int32_t>(request.size());
    parseSetRequestXML(request.data(), n);
    parseGetRequestXML(request.data(), n);
    parseGetAllRequestXML(request.data(), n);
    parseGetGroupRequestXML(request.data(), n);
    const auto records = texts(log.take().syslog);
    EXPECT_EQ(records, std::vector<std::string>(4, "[bus_xml_tests]it is Set_Action\n"));
}

std::string repeated(const std::string& part, std::size_t count) {
    std::string all;
    for (std::size_t i = 0; i < count; ++i) {
        all += part;
    }
    return all;
}

TEST_F(BusXml, HostileRequestsAreRefusedCheaplyAndInSilence) {
    std::string laughs = "<!DOCTYPE x [<!ENTITY a 'lollollollol'>";
    for (char c = 'b'; c <= 'z'; ++c) {
        laughs += std::string("<!ENTITY ") + c + " '" +
                  repeated(std::string("&") + static_cast<char>(c - 1) + ";", 500) + "'>";
    }
    laughs += "]><SET_ACTION><p name='&z;'>&z;</p></SET_ACTION>";
    std::string cut = "<SET_ACTION><parameter name='a.password'>secret</parameter></SET_ACTION>";
    std::vector<std::string> requests{
        laughs, repeated("<SET_ACTION>", 100000), std::string("<SET_ACTION>\0</SET_ACTION>", 25),
        "<SET_ACTION>" + std::string(kMaxRequestBytes, ' ') + "</SET_ACTION>",
        "<SET_ACTION><p name='a'>&undefined;</p></SET_ACTION>"};
    for (std::size_t i = 0; i < cut.size(); ++i) {
        requests.push_back(cut.substr(0, i));
    }
    rusage before{};
    getrusage(RUSAGE_SELF, &before);
    testing::internal::CaptureStderr();
    for (const std::string& request : requests) {
        EXPECT_EQ(parseSet(request), 3) << request.substr(0, 60).c_str();
        EXPECT_EQ(setPairs(), Pairs{}) << request.substr(0, 60).c_str();
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "a peer's text may hold a password";
    rusage after{};
    getrusage(RUSAGE_SELF, &after);
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 300 * 1024) << "KiB";
}

TEST_F(BusXml, ManyParametersAndLongValuesAreTaken) {
    EXPECT_EQ(parseSet("<SET_ACTION>" + repeated("<p name='a'>1</p>", 50000) + "</SET_ACTION>"), 0);
    EXPECT_EQ(CheckSetAnswerListLength(), 50000);
    delSetAnswerElement();
    const std::string value(15 * 1000 * 1000, 'v');
    EXPECT_EQ(parseSet("<SET_ACTION><p name='a'>" + value + "</p></SET_ACTION>"), 0);
    EXPECT_EQ(setPairs(), (Pairs{{"a", value}}));
}

} // namespace
} // namespace kelconf::test
