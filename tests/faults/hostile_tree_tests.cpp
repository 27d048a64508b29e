// kelconf-init on parameter trees that are broken, odd or made to hurt. Whatever stands there:
// status 0, nothing on standard output, on standard error at most what libxml2 reports, bounded
// memory, an end before the deadline of runInit; and then either no sealed database and a record
// that says so, or a sealed one with what the tree rightly defines. The second run finds the
// same.

#include "faults/init_runs.h"
#include "files/md5_sidecar.h"
#include "paths.h"
#include "support/records.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <iterator>

namespace kelconf::test {
namespace {

constexpr long kMostMemoryKib = 256L * 1024;
constexpr const char* kSecretFile = "/tmp/secret";
constexpr const char* kSecret = "TOPSECRET";
const std::string kParseRecord = "2 error: could not parse file ";
const std::string kLimitRecord = "2 tree over the expansion limit";

enum class Outcome {
    kRight,     // sealed, nothing said about the limit
    kLimited,   // sealed, and a record that tells what the limit has left out
    kNotParsed, // not sealed, and the record of a tree that cannot be parsed
    kRefused    // one of the last two: libxml2 has limits of its own, which its versions shift
};

struct Case {
    std::string name;
    std::function<std::string()> tree;
    Outcome outcome;
    SqlRows rows;           // NAME and VALUE of all rows when sealed; empty: see `count`
    std::string count = {}; // number of rows instead
    bool small = true;      // the bound on memory holds
};

void PrintTo(const Case& tested, std::ostream* out) {
    *out << tested.name;
}

// ---- The trees ----

std::function<std::string()> text(std::string tree) {
    return [tree = std::move(tree)] { return tree; };
}

std::string repeated(const std::string& piece, std::size_t times) {
    std::string result;
    result.reserve(piece.size() * times);
    for (std::size_t i = 0; i < times; ++i) {
        result += piece;
    }
    return result;
}

// A tree with a sound leaf t.ok after `content`.
std::string trunk(const std::string& content, const std::string& before = {}) {
    return before + "<r><t type='trunk'>" + content + "<ok type='int'>1</ok></t></r>";
}

std::string utf16(const std::string& latin1) {
    std::string result = "\xff\xfe";
    for (const char c : latin1) {
        result += {c, '\0'};
    }
    return result;
}

std::string group(const std::string& number, const std::string& inside) {
    return trunk("<g type='multiple_instance' number='" + number + "'>" + inside + "</g>");
}

const std::string kLeaf = "<l type='int'>1</l>";

std::string deep(std::size_t levels) {
    return trunk(repeated("<b type='branch'>", levels) + kLeaf + repeated("</b>", levels));
}

std::string laughs() {
    std::string doctype = "<!DOCTYPE r [<!ENTITY e0 'ha ha ha ha ha'>";
    for (int i = 1; i <= 12; ++i) {
        doctype += "<!ENTITY e" + std::to_string(i) + " '" +
                   repeated("&e" + std::to_string(i - 1) + ";", 10) + "'>";
    }
    return trunk("<l type='string'>&e12;</l>", doctype + "]>");
}

std::string quadratic(bool in_attributes) {
    const std::string doctype = "<!DOCTYPE r [<!ENTITY e '" + std::string(100000, 'x') + "'>]>";
    return in_attributes ? trunk(repeated("<l type='string' range='&e;'/>", 10000), doctype)
                         : trunk("<l type='string'>" + repeated("&e;", 10000) + "</l>", doctype);
}

// Each level's name is as long as libxml2 allows, and so the names of 100 leaves make 250 MB.
std::string longNames() {
    const std::string name(49000, 'n');
    return trunk(repeated("<" + name + " type='branch'>" + kLeaf, 100) +
                 repeated("</" + name + ">", 100));
}

// 50 MB in 200,000 parameters.
std::string plain() {
    std::string content;
    for (int i = 0; i < 200000; ++i) {
        content += "<p" + std::to_string(i) + " type='string' range='0-9' http_access='rw'>" +
                   std::string(190, 'v') + "</p" + std::to_string(i) + ">\n";
    }
    return trunk(content);
}

std::string gzipped(const std::string& tree) {
    writeFile("/tmp/tree", tree);
    if (std::system("gzip -f /tmp/tree") != 0) {
        throw std::runtime_error("gzip failed");
    }
    return readFile("/tmp/tree.gz");
}

const SqlRows kOnlyOk = {{"t.ok", "1"}};

SqlRows counterAndOk(const std::string& number) {
    return {{"t.g.number", number}, {"t.ok", "1"}};
}

std::vector<Case> cases() {
    const std::string secret_uri = std::string("file://") + kSecretFile;
    return {
        {"Empty", text(""), Outcome::kNotParsed, {}},
        {"Blank", text(" \n"), Outcome::kNotParsed, {}},
        {"CutOff", text("<r><t type='trunk'><ok type='int'>1</ok>"), Outcome::kNotParsed, {}},
        {"Nul", text(std::string(5000, '\0')), Outcome::kNotParsed, {}},
        {"Noise", text(repeated("\x80\xff\x01<", 3000)), Outcome::kNotParsed, {}},
        {"InvalidUtf8", text(trunk("<l type='string'>\xff\xfe</l>")), Outcome::kNotParsed, {}},
        {"OverlongUtf8", text(trunk("<l type='string'>\xc0\xaf</l>")), Outcome::kNotParsed, {}},
        {"Gzip", [] { return gzipped(trunk("")); }, Outcome::kNotParsed, {}},

        {"NoElementButTheRoot", text("<r/>"), Outcome::kRight, {}, "0"},
        {"Utf16",
         text(utf16(trunk("<l type='string'>caf\xe9</l>"))),
         Outcome::kRight,
         {{"t.l", "caf\xc3\xa9"}, {"t.ok", "1"}}},
        {"Latin1",
         text(trunk("<l type='string'>caf\xe9</l>", "<?xml version='1.0' encoding='ISO-8859-1'?>")),
         Outcome::kRight,
         {{"t.l", "caf\xc3\xa9"}, {"t.ok", "1"}}},
        {"UnknownEncoding",
         text(trunk("", "<?xml version='1.0' encoding='no-such'?>")),
         Outcome::kNotParsed,
         {}},
        {"ValueOfSql",
         text(trunk("<l type='string'>');DROP TABLE CONFIGDEFAULT;--</l>")),
         Outcome::kRight,
         {{"t.l", "');DROP TABLE CONFIGDEFAULT;--"}, {"t.ok", "1"}}},
        {"ValueOfAMegabyte",
         [] { return trunk("<l type='string'>" + std::string(1 << 20, 'v') + "</l>"); },
         Outcome::kRight,
         {{"t.l", std::string(1 << 20, 'v')}, {"t.ok", "1"}}},

        {"Deep200", [] { return deep(200); }, Outcome::kRight, {}, "2"},
        {"Deep100000", [] { return deep(100000); }, Outcome::kNotParsed, {}},
        {"BillionLaughs", laughs, Outcome::kRefused, kOnlyOk},
        {"LongEntityInContent", [] { return quadratic(false); }, Outcome::kRefused, kOnlyOk},
        {"LongEntityInAttributes", [] { return quadratic(true); }, Outcome::kRefused, {}, ""},
        {"EntityOfItself",
         text(trunk("<l type='string'>&a;</l>",
                    "<!DOCTYPE r [<!ENTITY a '&b;'><!ENTITY b '&a;'>]>")),
         Outcome::kNotParsed,
         {}},
        {"LongNames", longNames, Outcome::kLimited, {}, ""},

        {"ExternalEntity",
         text(trunk("<l type='string'>[&e;]</l>",
                    "<!DOCTYPE r [<!ENTITY e SYSTEM '" + secret_uri + "'>]>")),
         Outcome::kRight,
         {{"t.l", "[]"}, {"t.ok", "1"}}},
        {"ExternalEntityByPath",
         text(trunk("<l type='string'>[&e;]</l>",
                    std::string("<!DOCTYPE r [<!ENTITY e SYSTEM '") + kSecretFile + "'>]>")),
         Outcome::kRight,
         {{"t.l", "[]"}, {"t.ok", "1"}}},
        {"ExternalDoctype",
         text(trunk("<l type='string'>[&secret;]</l>", "<!DOCTYPE r SYSTEM '/tmp/secret.dtd'>")),
         Outcome::kRight,
         {{"t.l", "[]"}, {"t.ok", "1"}}},
        {"ParameterEntity",
         text(trunk("<l type='string'>[&secret;]</l>",
                    "<!DOCTYPE r [<!ENTITY % p SYSTEM '/tmp/secret.dtd'> %p;]>")),
         Outcome::kNotParsed,
         {}}, // it is not read, so its entity is not defined
        {"ParameterEntityOfDefaults",
         text(trunk("<l type='string'>[]</l>",
                    "<!DOCTYPE r [<!ENTITY % p SYSTEM '/tmp/secret.dtd'> %p;]>")),
         Outcome::kRight,
         {{"t.l", "[]"}, {"t.ok", "1"}}},
        {"XInclude",
         text(trunk("<l type='string'><x:include xmlns:x='http://www.w3.org/2001/XInclude' "
                    "href='/tmp/secret' parse='text'/></l>")),
         Outcome::kRight,
         {{"t.l", ""}, {"t.ok", "1"}}},

        {"NumberOfTheLargestInt", text(group("2147483647", kLeaf)), Outcome::kLimited,
         counterAndOk("2147483647")},
        {"NumberBeyond32Bits", text(group("99999999999", kLeaf)), Outcome::kLimited,
         counterAndOk("99999999999")},
        {"NumberOverBlanks", text(group("2147483647", " \n ")), Outcome::kRight,
         counterAndOk("2147483647")},
        {"NumberBeyond32BitsOverBlanks", text(group("99999999999", "\n\n")), Outcome::kRight,
         counterAndOk("99999999999")},
        {"NumberOverEmptyBranches", text(group("2147483647", "<b type='branch'> </b>")),
         Outcome::kRight, counterAndOk("2147483647")},
        {"NumberNegative", text(group("-5", kLeaf)), Outcome::kRight, counterAndOk("-5")},
        {"NumberMostNegative", text(group("-99999999999", kLeaf)), Outcome::kRight,
         counterAndOk("-99999999999")},
        {"NumberInHex", text(group("0x10", kLeaf)), Outcome::kRight, counterAndOk("0x10")},
        {"NumberOfManyDigits", text(group(std::string(100000, '9'), kLeaf)), Outcome::kLimited,
         counterAndOk(std::string(100000, '9'))},
        {"NumbersThatMultiply",
         text(group("10000", "<h type='multiple_instance' number='10000'><i "
                             "type='multiple_instance' number='10000'>" +
                                 kLeaf + "</i></h>")),
         Outcome::kLimited,
         {},
         ""},

        {"Plain50Megabytes", plain, Outcome::kRight, {}, "200001", false},
    };
}

// ---- The runs ----

class HostileTree : public testing::TestWithParam<Case> {
  protected:
    void SetUp() override {
        resetDevice();
        writeFile(kSecretFile, kSecret);
        writeFile("/tmp/secret.dtd", std::string("<!ENTITY secret '") + kSecret +
                                         "'><!ATTLIST l range CDATA '" + kSecret + "'>");
    }

    std::vector<std::string> run(bool bounded) {
        log_.take();
        const InitRun ended = runInit();
        EXPECT_FALSE(ended.timed_out);
        EXPECT_EQ(ended.status, 0);
        EXPECT_EQ(ended.out, "");
        EXPECT_TRUE(ended.err.empty() || ended.err.find("/etc/") != std::string::npos ||
                    ended.err.find("I/O ") != std::string::npos)
            << ended.err.substr(0, 300);
#ifndef KELCONF_SANITIZED
        if (bounded) {
            EXPECT_LE(ended.peak_kib, kMostMemoryKib);
        }
#else
        static_cast<void>(bounded);
#endif
        return sameInBothSinks(log_.take());
    }

    DeviceLog log_;
};

// The files are not read as a whole: a program that is started by a large one counts as large.
bool sealedOnFlash() {
    const auto files = std::distance(std::filesystem::directory_iterator("/mnt/nand/conf"), {});
    return files == 2 && checkFileMD5(paths::kDefaultDb, paths::kDefaultDbMd5);
}

bool databaseHoldsSecret() {
    for (const char* column : {"NAME", "VALUE", "TYPE", "RANGE", "STEP", "OPTIONS"}) {
        const std::string query = std::string("SELECT 1 FROM CONFIGDEFAULT WHERE instr(") + column +
                                  ",'" + kSecret + "')";
        if (!sql(paths::kDefaultDb, query).empty()) {
            return true;
        }
    }
    return false;
}

bool holds(const std::vector<std::string>& records, const std::string& start) {
    return std::any_of(records.begin(), records.end(),
                       [&](const std::string& record) { return record.starts_with(start); });
}

void expectRows(const Case& tested) {
    if (!tested.rows.empty()) {
        EXPECT_EQ(sql(paths::kDefaultDb, "SELECT NAME,VALUE FROM CONFIGDEFAULT ORDER BY rowid"),
                  tested.rows);
    }
    if (!tested.count.empty()) {
        EXPECT_EQ(sql(paths::kDefaultDb, "SELECT count(*) FROM CONFIGDEFAULT"),
                  (SqlRows{{tested.count}}));
    }
}

// The sound leaf is there, and the database is whole.
void expectWhole() {
    EXPECT_EQ(sql(paths::kDefaultDb, "SELECT count(*) FROM CONFIGDEFAULT WHERE NAME='t.ok'"),
              (SqlRows{{"1"}}));
    EXPECT_EQ(sql(paths::kDefaultDb, "PRAGMA integrity_check"), (SqlRows{{"ok"}}));
}

TEST_P(HostileTree, EndsInARecordOrARightDatabase) {
    const Case& tested = GetParam();
    writeFile(paths::kNeutralTree, tested.tree());
    const auto records = run(tested.small);
    const bool is_sealed = sealedOnFlash();
    const bool not_parsed = holds(records, kParseRecord);
    const bool limited = holds(records, kLimitRecord);
    EXPECT_NE(is_sealed, not_parsed);
    EXPECT_EQ(tested.outcome == Outcome::kRight, is_sealed && !limited);
    EXPECT_FALSE(tested.outcome == Outcome::kLimited && !limited);
    EXPECT_FALSE(tested.outcome == Outcome::kNotParsed && !not_parsed);
    if (is_sealed) {
        expectRows(tested);
        if (tested.name != "NoElementButTheRoot") {
            expectWhole();
        }
    }
    EXPECT_FALSE(databaseHoldsSecret());
    const auto again = run(tested.small);
    EXPECT_EQ(again.size() == 1 && again[0].starts_with("0 checking "), is_sealed);
    EXPECT_EQ(holds(again, kParseRecord), not_parsed);
    EXPECT_EQ(sealedOnFlash(), is_sealed);
    std::cout << "           "
              << (not_parsed ? "not parsed"
                  : limited  ? "limited"
                             : "right")
              << "\n";
}

INSTANTIATE_TEST_SUITE_P(Of, HostileTree, testing::ValuesIn(cases()),
                         [](const auto& instance) { return instance.param.name; });

// ---- The same as extension tree ----

class HostileExtension : public HostileTree {};

TEST_P(HostileExtension, LeavesTheNeutralRows) {
    writeFile(paths::kNeutralTree, "<r><n type='trunk'><a type='int'>1</a></n></r>");
    writeFile(paths::kExtTree, GetParam().tree());
    const auto records = run(GetParam().small);
    EXPECT_TRUE(sealedOnFlash()) << "an extension tree never prevents the seal";
    const SqlRows rows = sql(paths::kDefaultDb, "SELECT NAME FROM CONFIGDEFAULT ORDER BY rowid");
    ASSERT_FALSE(rows.empty());
    EXPECT_EQ(rows[0][0], "n.a");
    EXPECT_EQ(rows.size() == 1, holds(records, kParseRecord));
    EXPECT_EQ(run(GetParam().small).size(), 1U);
}

std::vector<Case> notForRight() {
    std::vector<Case> chosen = cases();
    std::erase_if(chosen, [](const Case& one) {
        return one.outcome == Outcome::kRight || one.name == "LongNames"; // some 10 s each
    });
    return chosen;
}

INSTANTIATE_TEST_SUITE_P(Of, HostileExtension, testing::ValuesIn(notForRight()),
                         [](const auto& instance) { return instance.param.name; });

class OddFile : public HostileTree {};

TEST_F(OddFile, DirectoryAsNeutralTree) {
    std::filesystem::create_directory(paths::kNeutralTree);
    EXPECT_TRUE(holds(run(true), kParseRecord));
    EXPECT_FALSE(sealedOnFlash());
}

TEST_F(OddFile, DirectoryAsExtensionTree) {
    writeFile(paths::kNeutralTree, trunk(""));
    std::filesystem::create_directory(paths::kExtTree);
    EXPECT_TRUE(holds(run(true), kParseRecord));
    EXPECT_TRUE(sealedOnFlash());
    expectWhole();
}

} // namespace
} // namespace kelconf::test
