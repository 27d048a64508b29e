#include "catalog/catalog.h"

#include "db/sqlite_handle.h"
#include "files/md5_sidecar.h"
#include "paths.h"

namespace kelconf {

namespace {

constexpr std::string_view kColumns = "SELECT NAME,VALUE,TYPE,RANGE,STEP,OPTIONS,HTTP_ACCESS "
                                      "FROM CONFIGDEFAULT ";

std::string textAt(sqlite3_stmt* row, int column) {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(row, column));
    return text == nullptr ? std::string{} : std::string{text};
}

Parameter parameterOf(sqlite3_stmt* row) {
    return {textAt(row, 0), textAt(row, 1), textAt(row, 2), textAt(row, 3),
            textAt(row, 4), textAt(row, 5), textAt(row, 6)};
}

} // namespace

Catalog::Catalog() {
    const std::string uri = std::string{"file:"} + paths::kDefaultDb + "?immutable=1";
    sqlite3* opened = nullptr;
    const int status =
        sqlite3_open_v2(uri.c_str(), &opened, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
    database_.reset(opened);
    if (status == SQLITE_OK) {
        by_name_ = prepare(opened, std::string{kColumns} + "WHERE NAME=?");
    }
    open_ = by_name_ != nullptr;
    if (!open_) {
        fail();
    }
}

void Catalog::fail() {
    problem_ = std::string{paths::kDefaultDb} + ": " + sqlite3_errmsg(database_.get());
}

std::optional<Parameter> Catalog::find(std::string_view name) {
    sqlite3_stmt* query = by_name_.get();
    sqlite3_reset(query);
    sqlite3_bind_text64(query, 1, name.data(), name.size(), SQLITE_STATIC, SQLITE_UTF8);
    const int status = sqlite3_step(query);
    if (status == SQLITE_ROW) {
        return parameterOf(query);
    }
    if (status != SQLITE_DONE) {
        fail();
    }
    return {};
}

bool Catalog::forEach(const std::function<void(Parameter&&)>& visit) {
    const Statement query = prepare(database_.get(), std::string{kColumns} + "ORDER BY NAME");
    int status = SQLITE_ERROR;
    while (query && (status = sqlite3_step(query.get())) == SQLITE_ROW) {
        visit(parameterOf(query.get()));
    }
    if (status != SQLITE_DONE) {
        fail();
    }
    return status == SQLITE_DONE;
}

std::vector<std::string> Catalog::namesOfType(const char* type) {
    std::vector<std::string> names;
    const Statement query = prepare(database_.get(), "SELECT NAME FROM CONFIGDEFAULT WHERE TYPE=?");
    if (query) {
        bindText(query.get(), 1, type);
        while (sqlite3_step(query.get()) == SQLITE_ROW) {
            names.push_back(textAt(query.get(), 0));
        }
    }
    return names;
}

bool catalogSound() {
    return checkFileMD5(paths::kDefaultDb, paths::kDefaultDbMd5);
}

} // namespace kelconf
