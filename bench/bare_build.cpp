// The yardstick for kelconf-init: the same rows by the shortest way that the same libraries
// offer. No checks, no log, no item list, no limits, no care for failures beyond giving up.
//
//   bare_build TREE DB SIDECAR        parse, insert in one transaction, VACUUM, digest
//   bare_build check DB SIDECAR       the digest against the sidecar, then one scan

#include "qlibc/use_qlibc.h"

#include <fcntl.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <sqlite3.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace {

constexpr const char* kCreateTable =
    "CREATE TABLE CONFIGDEFAULT( NAME  TEXT  PRIMARY KEY  ,VALUE TEXT               ,TYPE TEXT     "
    "          ,RANGE TEXT           ,STEP TEXT           ,HTTP_ACCESS TEXT           ,OPTIONS "
    "TEXT          )";
constexpr const char* kInsert =
    "INSERT INTO CONFIGDEFAULT (NAME,VALUE,TYPE,RANGE,STEP,HTTP_ACCESS,OPTIONS) "
    "VALUES (?,?,?,?,?,?,?)";

sqlite3* database = nullptr;
sqlite3_stmt* insert = nullptr;

[[noreturn]] void giveUp(const char* what) {
    std::fprintf(stderr, "bare_build: %s: %s\n", what, sqlite3_errmsg(database));
    std::exit(1);
}

void execute(const char* sql) {
    if (sqlite3_exec(database, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
        giveUp(sql);
    }
}

void bind(int column, std::string_view text) {
    sqlite3_bind_text(insert, column, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
}

void runInsert() {
    if (sqlite3_step(insert) != SQLITE_DONE) {
        giveUp("insert");
    }
    sqlite3_reset(insert);
}

// The texts where they lie in the document; enough for a tree without entities of its own.
std::string_view attribute(const xmlNode* node, const char* name) {
    const xmlAttr* found = xmlHasProp(node, reinterpret_cast<const xmlChar*>(name));
    return found == nullptr || found->children == nullptr
               ? ""
               : reinterpret_cast<const char*>(found->children->content);
}

std::string_view content(const xmlNode* node) {
    const xmlNode* text = node->children;
    return text == nullptr ? "" : reinterpret_cast<const char*>(text->content);
}

std::string withNumber(std::string_view text, std::string_view number) {
    std::string result(text);
    for (std::size_t at = result.find("%auto"); at != std::string::npos;
         at = result.find("%auto", at + number.size())) {
        result.replace(at, 5, number);
    }
    return result;
}

void insertLeaf(const std::string& name, const xmlNode* node, std::string_view type,
                long instance) {
    std::string_view value = type == "realtime" ? "" : content(node);
    std::string replaced;
    if (instance > 0 && value.find("%auto") != std::string_view::npos) {
        replaced = withNumber(value, std::to_string(instance));
        value = replaced;
    }
    bind(1, name);
    bind(2, value);
    bind(3, type);
    bind(4, attribute(node, "range"));
    bind(5, attribute(node, "step"));
    bind(6, attribute(node, "http_access"));
    bind(7, attribute(node, "options"));
    runInsert();
}

void insertCounter(const std::string& name, std::string_view number) {
    const std::string counter = name + ".number";
    const std::array<std::string_view, 7> row = {counter, number, "", "", "", "r", ""};
    for (std::size_t i = 0; i < row.size(); ++i) {
        bind(static_cast<int>(i) + 1, row[i]);
    }
    runInsert();
}

void walk(std::string& path, const xmlNode* first, long instance) {
    const std::size_t parent = path.size();
    for (const xmlNode* node = first; node != nullptr; node = node->next) {
        const std::string_view type = attribute(node, "type");
        if (node->type != XML_ELEMENT_NODE || type.empty()) {
            continue;
        }
        path.append(1, '.').append(reinterpret_cast<const char*>(node->name));
        if (type == "branch") {
            walk(path, node->children, instance);
        } else if (type == "multiple_instance") {
            const std::string_view number = attribute(node, "number");
            insertCounter(path, number);
            const std::size_t group = path.size();
            const long count = std::strtol(std::string(number).c_str(), nullptr, 10);
            for (long i = 1; i <= count; ++i) {
                path.append(1, '.').append(std::to_string(i));
                walk(path, node->children, i);
                path.resize(group);
            }
        } else {
            insertLeaf(path, node, type, instance);
        }
        path.resize(parent);
    }
}

void insertTree(const char* tree) {
    xmlDoc* document = xmlReadFile(tree, nullptr, 0);
    if (document == nullptr) {
        giveUp("parse");
    }
    for (const xmlNode* node = xmlDocGetRootElement(document)->children; node != nullptr;
         node = node->next) {
        if (attribute(node, "type") == "trunk") {
            std::string path = reinterpret_cast<const char*>(node->name);
            walk(path, node->children, 0);
        }
    }
    xmlFreeDoc(document);
}

void seal(const char* file, const char* sidecar) {
    std::array<unsigned char, 16> digest{};
    if (!qhashmd5_file(file, 0, 0, digest.data())) {
        giveUp("digest");
    }
    const int out = open(sidecar, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (pwrite(out, digest.data(), digest.size(), 0) != 16 || fdatasync(out) != 0) {
        giveUp("sidecar");
    }
    close(out);
}

void build(const char* tree, const char* file, const char* sidecar) {
    unlink(file);
    sqlite3_open(file, &database);
    execute("PRAGMA synchronous = NORMAL");
    execute(kCreateTable);
    execute("BEGIN TRANSACTION");
    sqlite3_prepare_v2(database, kInsert, -1, &insert, nullptr);
    insertTree(tree);
    sqlite3_finalize(insert);
    execute("END TRANSACTION");
    execute("VACUUM");
    sqlite3_close(database);
    seal(file, sidecar);
}

int check(const char* file, const char* sidecar) {
    std::array<unsigned char, 16> computed{};
    std::array<unsigned char, 16> stored{};
    const int in = open(sidecar, O_RDONLY | O_CLOEXEC);
    const bool same = qhashmd5_file(file, 0, 0, computed.data()) &&
                      read(in, stored.data(), stored.size()) == 16 && computed == stored;
    close(in);
    sqlite3_open(file, &database);
    execute("SELECT * from CONFIGDEFAULT");
    sqlite3_close(database);
    return same ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fputs("usage: bare_build TREE|check DB SIDECAR\n", stderr);
        return 2;
    }
    if (std::string_view(argv[1]) == "check") {
        return check(argv[2], argv[3]);
    }
    build(argv[1], argv[2], argv[3]);
    return 0;
}
