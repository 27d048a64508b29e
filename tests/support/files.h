// Files, databases and programs for tests that run inside a device root.
#pragma once

#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace kelconf::test {

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    if (!out.flush()) {
        throw std::runtime_error("cannot write " + path);
    }
}

inline bool exists(const std::string& path) {
    return std::filesystem::exists(std::filesystem::symlink_status(path));
}

// Empties the places that the system writes to: a test starts from nothing.
inline void resetDevice() {
    for (const char* dir : {"/mnt/nand/conf", "/mnt/backup/conf"}) {
        std::filesystem::remove_all(dir);
        std::filesystem::create_directories(dir);
    }
    for (const char* tree : {"/etc/neutral_tree.xml", "/etc/ext_tree.xml"}) {
        std::filesystem::remove_all(tree);
    }
}

using SqlRows = std::vector<std::vector<std::string>>;

// Runs a statement on a database file; every value as text, NULL as "NULL".
inline SqlRows sql(const std::string& path, const std::string& statement) {
    sqlite3* handle = nullptr;
    const int status = sqlite3_open(path.c_str(), &handle);
    const std::unique_ptr<sqlite3, decltype(&sqlite3_close)> owner(handle, sqlite3_close);
    SqlRows rows;
    const auto collect = [](void* out, int count, char** values, char** /*names*/) {
        auto& row = static_cast<SqlRows*>(out)->emplace_back();
        for (int i = 0; i < count; ++i) {
            row.emplace_back(values[i] == nullptr ? "NULL" : values[i]);
        }
        return 0;
    };
    if (status != SQLITE_OK ||
        sqlite3_exec(handle, statement.c_str(), collect, &rows, nullptr) != SQLITE_OK) {
        throw std::runtime_error(statement + ": " + sqlite3_errmsg(handle));
    }
    return rows;
}

struct ProgramResult {
    int status = -1; // exit status, or 128 + signal
    std::string out, err;
};

// Runs a program of BUILD/bin to its end.
inline ProgramResult runProgram(const std::string& name) {
    const char* bin = std::getenv("KELCONF_BIN");
    const std::string program = std::string(bin == nullptr ? "." : bin) + "/" + name;
    const std::string out = "/tmp/program.out";
    const std::string err = "/tmp/program.err";
    const int raw = std::system((program + " >" + out + " 2>" + err).c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw), readFile(out), readFile(err)};
}

} // namespace kelconf::test
