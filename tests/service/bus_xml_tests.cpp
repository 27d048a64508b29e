// The documents of the bus: exact bytes, the same as libxml2's own dump for any text, and what
// the parsers make of good and of hostile requests. Answers: daemon/bus_test.cpp.
#include "bus/bus_xml.h"
#include "bus/xml_dump.h"
#include "bus/xml_writer.h"
#include "live_values.h"
#include "service/request_lists.h"
#include "support/device_log.h"

#include <gtest/gtest.h>
#include <libxml/parserInternals.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <functional>
#include <random>

namespace kelconf::test {
namespace {

class BusXml : public testing::Test {
  protected:
    void SetUp() override { emptyLists(); }
    void TearDown() override { emptyLists(); }
};

// ---- Builders -----------------------------------------------------------------------------------

using Builder = std::function<char*(std::int32_t* length)>;

std::string built(const Builder& build) {
    std::int32_t length = -1;
    const OwnedText document{build(&length)};
    return document ? std::string(document.get(), static_cast<std::size_t>(length)) : "(null)";
}

// What a GET of these names is answered with.
Builder answerTo(const std::string& request) {
    return [request](std::int32_t* length) {
        parseGetRequestXML(request.data(), static_cast<std::int32_t>(request.size()));
        const std::int32_t found = searchValueForGetAnswerList();
        char* document = genGetReponseXML(static_cast<std::uint8_t>(found), length);
        delGetAnswerElement();
        return document;
    };
}

TEST_F(BusXml, BuildersGiveTheExactDocuments) {
    addLive("a", "1");
    addLive("wlan", "");
    addLive("wlan0", "<é'\"");
    addQryGroupElementWithName("wlan");
    simlist changes;
    simlist_init(&changes);
    simlist_attributes_copy(
        &changes, [](const void*) { return sizeof(ChangeRecord); }, 1);
    const std::string wlan = "<parameter name=\"wlan\"></parameter>";
    const std::string wlan0 = "<parameter name=\"wlan0\">&lt;&#xE9;'\"</parameter>";
    const std::pair<Builder, std::string> cases[] = {
        {[](auto* n) { return genGetRequestXML("N", n); },
         "<GET_ACTION><parameter name=\"N\"/></GET_ACTION>"},
        {genGetAllRequestXML, "<GET_ALL_ACTION/>"},
        {[](auto* n) { return genSetRequestXML("N", "V", n); },
         "<SET_ACTION><parameter name=\"N\">V</parameter></SET_ACTION>"},
        {answerTo("<GET_ACTION/>"), "<GET_RESPONSE_ACTION/>"},
        {answerTo("<GET_ACTION><p name='wlan0'/><p name='wlan'/><p name='wlan0'/></GET_ACTION>"),
         "<GET_RESPONSE_ACTION>" + wlan0 + wlan + wlan0 + "</GET_RESPONSE_ACTION>"},
        {answerTo("<GET_ACTION><p name='none'/><p name='wlan0'/></GET_ACTION>"),
         "<GET_RESPONSE_FAIL_ACTION><parameter name=\"none\"></parameter>" + wlan0 +
             "</GET_RESPONSE_FAIL_ACTION>"},
        {genGetAllReponseXML, "<GET_RESPONSE_ALL_ACTION><parameter name=\"a\">1</parameter>" +
                                  wlan + wlan0 + "</GET_RESPONSE_ALL_ACTION>"},
        {genGetGroupReponseXML,
         "<GET_RESPONSE_GROUP_ACTION>" + wlan + "</GET_RESPONSE_GROUP_ACTION>"},
        {[](auto* n) { return genSetReponseXML(1, n); }, "<SET_RESPONSE_ACTION/>"},
        {[](auto* n) { return genSetReponseXML(0, n); }, "<SET_RESPONSE_FAIL_ACTION/>"},
        {[](auto* n) { return genEventXML("N", "", nullptr, n); },
         "<EVENT_ACTION><parameter name=\"N\" prev_value=\"\"></parameter></EVENT_ACTION>"},
        {[&](auto* n) { return genMultipleEventXML(&changes, n); }, "<EVENT_ACTION/>"},
        {[&](auto* n) {
             for (const ChangeRecord& change : {ChangeRecord{newText("a"), newText("1"), nullptr},
                                                {newText("b"), newText("<"), newText("0")}}) {
                 simlist_append(&changes, &change);
             }
             return genMultipleEventXML(&changes, n); // the texts are its own to release
         },
         "<EVENT_ACTION><parameter name=\"a\" prev_value=\"\">1</parameter>"
         "<parameter name=\"b\" prev_value=\"0\">&lt;</parameter></EVENT_ACTION>"}};
    testing::internal::CaptureStdout();
    for (const auto& [build, body] : cases) {
        EXPECT_EQ(built(build), "<?xml version=\"1.0\"?>\n" + body + "\n");
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "bus_xml 375 CheckParamListLength 3 \n");
    EXPECT_EQ(simlist_size(&changes), 2U);
    simlist_destroy(&changes);
}

// Whatever the text is, XML or not.
void expectLibrarysBytes(const std::string& name, const std::string& prev, const std::string& value,
                         int which) {
    const BusParameter parameter{name.c_str(), prev.c_str(), value.c_str()};
    const auto walk = [&](const ParameterSink& sink) { sink(parameter); };
    ASSERT_EQ(built([&](auto* n) {
                  return genEventXML(parameter.name, parameter.value, parameter.prev_value, n);
              }),
              built([&](auto* n) { return dumpWithLibrary("EVENT_ACTION", walk, n); }))
        << which;
}

TEST(Writer, GivesTheLibrarysBytesForEveryCharacter) {
    for (int c = 1; c <= 0x10FFFF; c += c < 0x3000 || (c > 0xD000 && c < 0x10100) ? 1 : 61) {
        xmlChar bytes[8] = "a";
        bytes[1 + xmlCopyCharMultiByte(bytes + 1, c)] = 'z';
        const std::string text{reinterpret_cast<const char*>(bytes)};
        ASSERT_NO_FATAL_FAILURE(expectLibrarysBytes(text, text, "value", c));
        ASSERT_NO_FATAL_FAILURE(expectLibrarysBytes("name", "", text, c));
    }
}

TEST(Writer, GivesTheLibrarysBytesForHostileTexts) {
    const std::string pieces[] = {"<",    ">",    "&",  "\"", "'",        "\n",
                                  "\r",   "\t",   "]]", "a",  "&#x41;",   "\x7f",
                                  "\x80", "\xc3", "é",  "€",  "\xef\xbf", "\xf0\x9f\x93\xb7"};
    std::mt19937 random{20240611};
    const auto pick = [&](unsigned n) { return static_cast<unsigned>(random() % n); };
    for (int round = 0; round < 30000; ++round) {
        std::string texts[3];
        const bool any_byte = pick(4) == 0;
        const unsigned broken = pick(2) == 0 ? 0 : 6; // of the pieces, those that are no UTF-8
        for (std::string& text : texts) {
            for (unsigned left = pick(50) == 0 ? pick(5000) : pick(30); left > 0; --left) {
                text += any_byte ? std::string(1, static_cast<char>(1 + pick(255)))
                                 : pieces[pick(18 - broken)];
            }
        }
        ASSERT_NO_FATAL_FAILURE(expectLibrarysBytes(texts[0], texts[1], texts[2], round));
    }
}

// ---- Parsers ------------------------------------------------------------------------------------

using Pairs = std::vector<std::pair<std::string, std::string>>;
using Parsed = std::pair<std::int32_t, Pairs>;

Parsed parsed(const std::string& request) {
    Parsed result{parseSetRequestXML(request.data(), static_cast<std::int32_t>(request.size())),
                  {}};
    for (std::uint32_t i = 0; const AnswerElement* element = setAnswerAt(i); ++i) {
        result.second.emplace_back(element->name, element->value);
    }
    delSetAnswerElement();
    return result;
}

std::string repeated(const std::string& part, std::size_t count) {
    std::string all;
    for (std::size_t i = 0; i < count; ++i) {
        all += part;
    }
    return all;
}

TEST_F(BusXml, SetRequestsAreReadAsWritten) {
    const std::string value(15 * 1000 * 1000, 'v');
    const std::pair<std::string, Parsed> cases[] = {
        {"<SET_ACTION><parameter name='N'>V</parameter></SET_ACTION>", {0, {{"N", "V"}}}},
        {"<SET_ACTION_DIRECT/>", {1, {}}},
        {"<SET_ACTION_NO_DB><x name='a'/><y name='b'>2</y></SET_ACTION_NO_DB>",
         {2, {{"a", ""}, {"b", "2"}}}},
        {"<SET_ACTION>\n <p name='a'>1<b>2<c>3</c></b>4</p>\n <!-- c --> <?pi?></SET_ACTION>",
         {0, {{"a", "1234"}}}},
        {"<SET_ACTION><p>no name</p><p name=''>x</p><p name='a'><![CDATA[<&]]></p></SET_ACTION>",
         {0, {{"", "x"}, {"a", "<&"}}}},
        {"<SET_ACTION><p name='a&amp;&#65;'>&lt;&#xe9;</p></SET_ACTION>", {0, {{"a&A", "<é"}}}},
        {"<?xml version='1.0' encoding='ISO-8859-1'?><SET_ACTION><p name='a'>\xe9</p></SET_ACTION>",
         {0, {{"a", "é"}}}},
        {"<SET_ACTION>" + repeated("<p name='a'>1</p>", 50000) + "</SET_ACTION>",
         {0, Pairs(50000, {"a", "1"})}},
        {"<SET_ACTION><p name='a'>" + value + "</p></SET_ACTION>", {0, {{"a", value}}}}};
    for (const auto& [request, expected] : cases) {
        EXPECT_TRUE(parsed(request) == expected) << request.substr(0, 100);
    }
}

TEST_F(BusXml, OtherRequestsAreRefusedCheaplyAndInSilence) {
    std::string laughs = "<!DOCTYPE x [<!ENTITY a 'lollollollol'>";
    for (char c = 'b'; c <= 'z'; ++c) {
        laughs += std::string("<!ENTITY ") + c + " '" +
                  repeated(std::string("&") + static_cast<char>(c - 1) + ";", 500) + "'>";
    }
    const std::string good = "<SET_ACTION><p name='a.password'>secret</p></SET_ACTION>";
    std::vector<std::string> requests{
        laughs + "]><SET_ACTION><p name='&z;'>&z;</p></SET_ACTION>",
        repeated("<SET_ACTION>", 100000),
        std::string("<SET_ACTION>\0</SET_ACTION>", 25),
        "<SET_ACTION>" + std::string(kMaxRequestBytes, ' ') + "</SET_ACTION>",
        "<SET_ACTION><p name='a'>&undefined;</p></SET_ACTION>",
        "<SET_ACTION><p name='a'>\xff</p></SET_ACTION>",
        good + "junk",
        "<!DOCTYPE SET_ACTION>" + good,
        "<!DOCTYPE x [<!ENTITY e 'v'>]><SET_ACTION><p name='a'>&e;</p></SET_ACTION>",
        "<!DOCTYPE x SYSTEM 'file:///etc/passwd'>" + good};
    for (std::size_t i = 0; i < good.size(); ++i) {
        requests.push_back(good.substr(0, i));
    }
    rusage before{};
    rusage after{};
    getrusage(RUSAGE_SELF, &before);
    testing::internal::CaptureStderr();
    for (const std::string& request : requests) {
        EXPECT_TRUE(parsed(request) == Parsed(3, {})) << request.substr(0, 60);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "a peer's text may hold a password";
    getrusage(RUSAGE_SELF, &after);
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 300 * 1024) << "KiB";
}

TEST_F(BusXml, ForeignRootsAreLogged) {
    prctl(PR_SET_NAME, "bus_xml_tests"); // it may be emulated by a program of another name
    DeviceLog log;
    const char request[] = "<Set_Action><p name='a'>1</p></Set_Action>";
    parseGetRequestXML(request, sizeof request - 1);
    parseGetAllRequestXML(request, sizeof request - 1);
    parseGetGroupRequestXML(request, sizeof request - 1);
    EXPECT_EQ(parsed(request), Parsed(3, {}));
    EXPECT_EQ(CheckGetAnswerListLength() + CheckQryGroupListLength(), 0);
    EXPECT_EQ(texts(log.take().syslog),
              std::vector<std::string>(4, "[bus_xml_tests]it is Set_Action\n"));
}

} // namespace
} // namespace kelconf::test
