// kelconf-init on parameter trees that are broken, odd or made to hurt. Whatever stands there:
// status 0, nothing on standard output, on standard error at most what libxml2 reports, bounded
// memory, an end before the deadline of runInit; and then either no sealed database and a record
// that says so, or a sealed one with what the tree rightly defines. The second run finds the
// same. What a walk makes of odd trees is tested with the walk.

#include "faults/init_runs.h"
#include "paths.h"
#include "support/records.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

namespace kelconf::test {
namespace {

constexpr long kMostMemoryKib = 256L * 1024;
constexpr const char* kSecret = "TOPSECRET"; // in /tmp/secret, which no tree may read
const std::string kParseRecord = "2 error: could not parse file ";
const std::string kLimitRecord = "2 tree over the expansion limit";
constexpr const char* kValues = "SELECT NAME,VALUE FROM CONFIGDEFAULT WHERE NAME<>'t.ok'";

// kRefused is one of the two before: libxml2 has limits of its own, which its versions shift.
enum class Outcome { kRight, kLimited, kNotParsed, kRefused };

struct Case {
    const char* name;
    std::string tree;
    Outcome outcome;
    SqlRows rows = {}; // when sealed, besides the sound leaf t.ok
};

std::string repeated(const std::string& piece, std::size_t times) {
    std::string result;
    for (std::size_t i = 0; i < times; ++i) {
        result += piece;
    }
    return result;
}

// A tree with a sound leaf t.ok after `content`.
std::string trunk(const std::string& content, const std::string& before = {}) {
    return before + "<r><t type='trunk'>" + content + "<ok type='int'>1</ok></t></r>";
}

// A leaf whose value stands in brackets after a document type with these declarations.
std::string declared(const std::string& declarations, const std::string& value) {
    return trunk("<l type='string'>[" + value + "]</l>", "<!DOCTYPE r [" + declarations + "]>");
}

std::string group(const std::string& number, const std::string& inside) {
    return trunk("<g type='multiple_instance' number='" + number + "'>" + inside + "</g>");
}

std::string laughs() {
    std::string entities = "<!ENTITY e0 'ha ha ha ha ha'>";
    for (int i = 1; i <= 12; ++i) {
        entities += "<!ENTITY e" + std::to_string(i) + " '" +
                    repeated("&e" + std::to_string(i - 1) + ";", 10) + "'>";
    }
    return declared(entities, "&e12;");
}

std::string gzipped(const std::string& tree) {
    writeFile("/tmp/tree", tree);
    EXPECT_EQ(std::system("gzip -f /tmp/tree"), 0);
    return readFile("/tmp/tree.gz");
}

std::vector<Case> cases() {
    const std::string leaf = "<l type='int'>1</l>";
    const std::string many_digits(100000, '9');
    const std::string large(1 << 20, 'v');
    const std::string comments = repeated("<!--" + std::string(1000, 'c') + "-->", 12000);
    const std::string long_entity = "<!ENTITY e '" + std::string(100000, 'x') + "'>";
    const std::string by_dtd = "<!ENTITY % p SYSTEM '/tmp/secret.dtd'> %p;";
    const SqlRows empty = {{"t.l", "[]"}};
    return {
        {"empty", "", Outcome::kNotParsed},
        {"cut off", "<r><t type='trunk'><ok type='int'>1</ok>", Outcome::kNotParsed},
        {"zero bytes", std::string(5000, '\0'), Outcome::kNotParsed},
        {"invalid UTF-8", trunk("<l type='string'>\xff\xfe</l>"), Outcome::kNotParsed},
        {"encoding", trunk("", "<?xml version='1.0' encoding='no-such'?>"), Outcome::kNotParsed},
        {"gzip", gzipped(trunk("")), Outcome::kNotParsed},
        {"deep", trunk(repeated("<b type='branch'>", 100000)), Outcome::kNotParsed},
        {"laughs", laughs(), Outcome::kRefused},
        {"long entity", declared(long_entity, repeated("&e;", 10000)), Outcome::kRefused},
        {"long entity in attributes",
         trunk(repeated("<l type='s' range='&e;'/>", 10000), "<!DOCTYPE r [" + long_entity + "]>"),
         Outcome::kRefused},
        {"large",
         trunk(comments + "<l type='string'>" + large + "</l>"),
         Outcome::kRight,
         {{"t.l", large}}},
        {"SQL",
         trunk("<l type='string'>');DROP TABLE CONFIGDEFAULT;--</l>"),
         Outcome::kRight,
         {{"t.l", "');DROP TABLE CONFIGDEFAULT;--"}}},
        // Nothing outside the tree itself is read.
        {"external entity", declared("<!ENTITY e SYSTEM 'file:///tmp/secret'>", "&e;"),
         Outcome::kRight, empty},
        {"external document type",
         trunk("<l type='string'>[&secret;]</l>", "<!DOCTYPE r SYSTEM '/tmp/secret.dtd'>"),
         Outcome::kRight, empty},
        {"parameter entity", declared(by_dtd, "&secret;"), Outcome::kNotParsed},
        {"preset attributes", declared(by_dtd, ""), Outcome::kRight, empty},
        {"inclusion",
         declared("", "<i:include xmlns:i='http://www.w3.org/2001/XInclude' href='/tmp/secret' "
                      "parse='text'/>"),
         Outcome::kRight, empty},
        {"largest number",
         group("2147483647", leaf),
         Outcome::kLimited,
         {{"t.g.number", "2147483647"}}},
        {"number of nothing",
         group("99999999999", " \n <b type='branch'> </b>"),
         Outcome::kRight,
         {{"t.g.number", "99999999999"}}},
        {"digits", group(many_digits, leaf), Outcome::kLimited, {{"t.g.number", many_digits}}},
    };
}

bool holds(const std::vector<std::string>& records, const std::string& start) {
    return std::any_of(records.begin(), records.end(),
                       [&](const std::string& record) { return record.starts_with(start); });
}

std::vector<std::string> recordsOfRun(DeviceLog& log) {
    const InitRun run = runInit();
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "");
    EXPECT_TRUE(run.err.empty() || run.err.find("/etc/") != std::string::npos ||
                run.err.find("I/O ") != std::string::npos)
        << run.err.substr(0, 300);
#ifndef KELCONF_SANITIZED
    EXPECT_LE(run.peak_kib, kMostMemoryKib);
#endif
    EXPECT_EQ(readFile(paths::kDefaultDb).find(kSecret), std::string::npos);
    return sameInBothSinks(log.take());
}

TEST(HostileTree, EndsInARecordOrARightDatabase) {
    DeviceLog log;
    for (const auto& [name, tree, outcome, rows] : cases()) {
        SCOPED_TRACE(name);
        resetDevice();
        writeFile("/tmp/secret", kSecret);
        writeFile("/tmp/secret.dtd", std::string("<!ENTITY secret '") + kSecret +
                                         "'><!ATTLIST l range CDATA '" + kSecret + "'>");
        writeFile(paths::kNeutralTree, tree);
        const auto records = recordsOfRun(log);
        const bool is_sealed = sealed(readFlash());
        const bool limited = holds(records, kLimitRecord);
        EXPECT_EQ(holds(records, kParseRecord), !is_sealed);
        EXPECT_EQ(outcome == Outcome::kRight, is_sealed && !limited);
        EXPECT_TRUE(outcome != Outcome::kLimited || limited);
        EXPECT_TRUE(outcome != Outcome::kNotParsed || !is_sealed);
        if (is_sealed && outcome != Outcome::kRefused) {
            EXPECT_EQ(sql(paths::kDefaultDb, kValues), rows);
            EXPECT_EQ(sql(paths::kDefaultDb, "PRAGMA integrity_check"), (SqlRows{{"ok"}}));
        }
        const auto again = recordsOfRun(log);
        EXPECT_EQ(again.size() == 1 && again[0].starts_with("0 checking "), is_sealed);
        EXPECT_EQ(sealed(readFlash()), is_sealed);
    }
}

} // namespace
} // namespace kelconf::test
