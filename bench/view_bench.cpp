// view_bench BIN [ROUNDS]: reading values out of the view beside dconf, LMDB, SQLite and the bus,
// in a device root. Prints tables in Markdown. BIN: the directory of the programs.
#include "bench_clients.h"
#include "servers.h"
#include "service_bench.h"
#include "turns.h"
#include "view/publisher.h"

#include <dconf.h>
#include <kelbus.h>
#include <lmdb.h>
#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace bench; // NOLINT(google-build-using-namespace): the parts of one program

namespace fs = std::filesystem;
using Names = std::vector<std::string>;

constexpr const char* kRoot = "/tmp/bench";
constexpr int kLimit = 60'000; // ms
constexpr std::size_t kSome = 100;

void require(bool done, const char* what) {
    if (!done) {
        giveUp(what);
    }
}

// ---- The rivals: each reads the value of one name --------------------------------------------

class View {
  public:
    View() { require(kelbus_view_open(&view_) == KELBUS_OK, "no view"); }
    ~View() { kelbus_view_close(view_); }
    View(const View&) = delete;
    View& operator=(const View&) = delete;
    View(View&&) = delete;
    View& operator=(View&&) = delete;

    void get(const std::string& name) {
        std::array<char, 256> value{};
        std::size_t length = 0;
        require(kelbus_view_get(view_, name.c_str(), value.data(), value.size(), &length) ==
                    KELBUS_OK,
                "the view has no value");
    }
    void getMany(const std::vector<const char*>& names) {
        kelbus_values* values = nullptr;
        require(kelbus_view_get_many(view_, names.data(), names.size(), &values) == KELBUS_OK,
                "the view has no values");
        kelbus_values_free(values);
    }
    std::size_t visit() {
        std::size_t bytes = 0;
        const auto add = [](void* sum, const char*, const char*, std::size_t length) {
            *static_cast<std::size_t*>(sum) += length;
            return true;
        };
        require(kelbus_view_visit(view_, "", add, &bytes) == KELBUS_OK, "no visit");
        return bytes;
    }
    std::uint64_t changes() { return kelbus_view_changes(view_); }

  private:
    kelbus_view* view_ = nullptr;
};

// Its compiled file alone, mapped: no service, no writer.
class Dconf {
  public:
    explicit Dconf(const Names& names) {
        fs::create_directories(std::string{kRoot} + "/keys");
        std::ofstream keys{std::string{kRoot} + "/keys/all"};
        std::string group;
        for (const std::string& name : names) {
            const std::string path = pathOf(name);
            const std::size_t end = path.rfind('/');
            if (path.substr(0, end) != group) {
                group = path.substr(0, end);
                keys << "[" << group.substr(1) << "]\n";
            }
            keys << path.substr(end + 1) << "='a value of a camera 1'\n";
        }
        keys.close();
        const std::string file = std::string{kRoot} + "/dconf";
        require(std::system(("dconf compile " + file + " " + kRoot + "/keys").c_str()) == 0,
                "dconf does not compile");
        std::ofstream{std::string{kRoot} + "/profile"} << "file-db:" << file << "\n";
        setenv("DCONF_PROFILE", (std::string{kRoot} + "/profile").c_str(), 1);
        client_ = dconf_client_new();
        for (const std::string& name : names) {
            paths_.push_back(pathOf(name));
        }
    }
    ~Dconf() { g_object_unref(client_); }
    Dconf(const Dconf&) = delete;
    Dconf& operator=(const Dconf&) = delete;
    Dconf(Dconf&&) = delete;
    Dconf& operator=(Dconf&&) = delete;

    void get(std::size_t number) {
        GVariant* value = dconf_client_read(client_, paths_[number].c_str());
        require(value != nullptr, "dconf has no value");
        gsize length = 0;
        g_variant_get_string(value, &length);
        g_variant_unref(value);
    }

  private:
    static std::string pathOf(const std::string& name) {
        std::string path = "/" + name;
        std::replace(path.begin(), path.end(), '.', '/');
        return path;
    }
    DConfClient* client_ = nullptr;
    Names paths_;
};

class Lmdb {
  public:
    explicit Lmdb(const Names& names) {
        constexpr std::size_t kMap = 1UL << 28U;
        const std::string path = std::string{kRoot} + "/lmdb";
        fs::create_directories(path);
        MDB_txn* fill = nullptr;
        require(mdb_env_create(&environment_) == 0 &&
                    mdb_env_set_mapsize(environment_, kMap) == 0 &&
                    mdb_env_open(environment_, path.c_str(), 0, 0600) == 0 &&
                    mdb_txn_begin(environment_, nullptr, 0, &fill) == 0 &&
                    mdb_dbi_open(fill, nullptr, 0, &database_) == 0,
                "no LMDB");
        std::string text = "a value of a camera 1";
        for (const std::string& name : names) {
            MDB_val key{name.size(), const_cast<char*>(name.data())};
            MDB_val value{text.size(), text.data()};
            require(mdb_put(fill, database_, &key, &value, 0) == 0, "LMDB takes no value");
        }
        require(mdb_txn_commit(fill) == 0 &&
                    mdb_txn_begin(environment_, nullptr, MDB_RDONLY, &reading_) == 0,
                "LMDB does not read");
        mdb_txn_reset(reading_);
    }
    ~Lmdb() {
        mdb_txn_abort(reading_);
        mdb_env_close(environment_);
    }
    Lmdb(const Lmdb&) = delete;
    Lmdb& operator=(const Lmdb&) = delete;
    Lmdb(Lmdb&&) = delete;
    Lmdb& operator=(Lmdb&&) = delete;

    // A snapshot of its own for each, as a reader takes that wants the present value.
    void get(const std::string& name) {
        MDB_val key{name.size(), const_cast<char*>(name.data())};
        MDB_val value{};
        require(mdb_txn_renew(reading_) == 0 && mdb_get(reading_, database_, &key, &value) == 0,
                "LMDB has no value");
        mdb_txn_reset(reading_);
    }

  private:
    MDB_env* environment_ = nullptr;
    MDB_dbi database_ = 0;
    MDB_txn* reading_ = nullptr;
};

// The live database itself.
class Sqlite {
  public:
    Sqlite() {
        require(sqlite3_open_v2("/mnt/nand/conf/conf.db", &database_, SQLITE_OPEN_READONLY,
                                nullptr) == SQLITE_OK &&
                    sqlite3_prepare_v2(database_, "SELECT VALUE FROM CONFIG WHERE NAME=?1", -1,
                                       &find_, nullptr) == SQLITE_OK,
                "no live database");
    }
    ~Sqlite() {
        sqlite3_finalize(find_);
        sqlite3_close(database_);
    }
    Sqlite(const Sqlite&) = delete;
    Sqlite& operator=(const Sqlite&) = delete;
    Sqlite(Sqlite&&) = delete;
    Sqlite& operator=(Sqlite&&) = delete;

    void get(const std::string& name) {
        sqlite3_bind_text(find_, 1, name.data(), static_cast<int>(name.size()), SQLITE_STATIC);
        require(sqlite3_step(find_) == SQLITE_ROW, "SQLite has no value");
        sqlite3_column_text(find_, 0);
        sqlite3_reset(find_);
    }

  private:
    sqlite3* database_ = nullptr;
    sqlite3_stmt* find_ = nullptr;
};

// ---- Tables -------------------------------------------------------------------------------------

void printRow(const char* what, const std::vector<Rival>& rivals, std::size_t against,
              const char* goal, double runs = 1) {
    std::printf("| %s | %.3f | %.3f | %.3f | %s |\n", what, median(rivals[0].times) / runs,
                median(rivals[against].times) / runs,
                medianRatio(rivals[0].times, rivals[against].times), goal);
}

void compareReads(const Names& names, int turns) {
    View view;
    Dconf dconf{names};
    Lmdb lmdb{names};
    Sqlite sqlite;
    BusClient bus{kGet};
    BusClient all{kGetAll};
    constexpr std::size_t kRuns = 1000; // of a read in process, at a time
    std::size_t at = 0;
    const auto walk = [&](auto read) { // other names each time, the same for all in the mean
        return [&, read] {
            for (std::size_t i = 0; i < kRuns; ++i) {
                read(at = (at + 7919) % names.size());
            }
        };
    };
    std::vector<Rival> one{{nullptr, walk([&](std::size_t i) { view.get(names[i]); })},
                           {nullptr, walk([&](std::size_t i) { dconf.get(i); })},
                           {nullptr, walk([&](std::size_t i) { lmdb.get(names[i]); })},
                           {nullptr, walk([&](std::size_t i) { sqlite.get(names[i]); })},
                           {nullptr, [&] {
                                for (std::size_t i = 0; i < kRuns / 100; ++i) {
                                    bus.ask(getRequest({names[i]}));
                                }
                            }}};
    playTurns(one, turns, 1);
    printRow("one value, dconf", one, 1, "<= 0.5", kRuns);
    printRow("one value, LMDB", one, 2, "", kRuns);
    printRow("one value, SQLite in process", one, 3, "", kRuns);
    std::printf("| one value, the bus | %.3f | %.3f | %.4f |  |\n", median(one[0].times) / kRuns,
                median(one[4].times) * 100 / kRuns, medianRatio(one[0].times, one[4].times) / 100);

    const Names some = spread(names, kSome);
    std::vector<const char*> texts;
    std::vector<std::size_t> numbers;
    for (std::size_t i = 0; i < kSome; ++i) {
        texts.push_back(some[i].c_str());
        numbers.push_back(i * names.size() / kSome);
    }
    std::vector<Rival> hundred{{nullptr, [&] { view.getMany(texts); }},
                               {nullptr, [&] {
                                    for (const std::size_t number : numbers) {
                                        dconf.get(number);
                                    }
                                }}};
    playTurns(hundred, turns, 100);
    printRow("100 values of one moment, dconf one by one", hundred, 1, "<= 0.5");
    std::vector<Rival> every{{nullptr, [&] { view.visit(); }},
                             {nullptr, [&] { all.ask(kGetAllRequest); }}};
    playTurns(every, turns, names.size() > 5000 ? 3 : 50);
    printRow("all values, GET_ALL over the bus", every, 1, names.size() > 5000 ? "<= 0.2" : "");
}

void compareTheRest(const std::string& programs, const Names& names, int turns) {
    View view;
    BusClient set{kSet};
    BusClient all{kGetAll};
    std::vector<kelconf::view::Item> items;
    for (const std::string& name : names) {
        items.push_back({name, "a value of a camera 1", false});
    }
    auto publisher = kelconf::view::Publisher::publish("/tmp/bench/view", items);
    require(publisher.has_value(), "no view of its own");
    const std::string request = setRequest("SET_ACTION_NO_DB", {names[7]}, "a value of a camera 2");
    std::vector<Rival> publishing{{nullptr,
                                   [&] {
                                       publisher->begin();
                                       publisher->set(names[7], "a value of a camera 2");
                                       publisher->end();
                                   }},
                                  {nullptr, [&] { set.ask(request); }}};
    playTurns(publishing, turns, 500);
    printRow("publishing one change, a SET in memory with it", publishing, 1, "<= 0.05");
    std::vector<Rival> looks{{nullptr, [&] { view.changes(); }},
                             {nullptr, [&] { view.get(names[7]); }}};
    playTurns(looks, turns, 10000);
    printRow("the change count, one value", looks, 1, "");
    const std::vector<std::string> kelctl{programs + "/kelctl", "get", names[7]};
    const std::vector<std::string> bare{programs + "/bare_view", names[7]};
    std::vector<Rival> starts{{nullptr, [&] { runToEnd(kelctl); }},
                              {nullptr, [&] { runToEnd(bare); }}};
    playTurns(starts, turns, 20);
    printRow("kelctl get, a bare program that opens the view", starts, 1, "<= 1.15");
    const std::vector<std::string> list{programs + "/kelctl", "list"};
    std::vector<Rival> lists{{nullptr, [&] { runToEnd(list); }},
                             {nullptr, [&] { all.ask(kGetAllRequest); }}};
    playTurns(lists, turns, 5);
    printRow("kelctl list, the GET_ALL request alone", lists, 1, "<= 1.5");
}

Names makeDevice(long count) {
    for (const char* directory : {"/mnt/nand/conf", "/mnt/backup/conf", kRoot}) {
        fs::create_directories(directory);
        for (const auto& entry : fs::directory_iterator(directory)) {
            fs::remove_all(entry.path());
        }
    }
    std::ofstream tree{"/etc/neutral_tree.xml"};
    tree << "<tree><cam type=\"trunk\"><p type=\"multiple_instance\" number=\"" << count / 10
         << "\"><v type=\"branch\">";
    Names names;
    for (int i = 0; i < 10; ++i) {
        tree << "<s" << i << " type=\"string\">a value of a camera %auto</s" << i << ">";
        for (long instance = 1; instance <= count / 10; ++instance) {
            names.push_back("cam.p." + std::to_string(instance) + ".v.s" + std::to_string(i));
        }
    }
    tree << "</v></p></cam></tree>";
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fputs("usage: view_bench BIN [ROUNDS]\n", stderr);
        return 2;
    }
    const std::string programs = argv[1];
    const int turns = 4 * (argc > 2 ? static_cast<int>(std::strtol(argv[2], nullptr, 10)) : 5);
    setPrograms(argv[1]);
    for (const long count : {500L, 50'000L}) {
        const Names names = makeDevice(count);
        runToEnd({programs + "/kelconf-init"});
        const Server daemon{daemonCommand()};
        BusClient{kGet}.ask(getRequest({names[0]}));
        std::printf(
            "\n%ld parameters\n\n| what, and its yardstick | us | yardstick, us | ratio | goal |\n"
            "|---|---:|---:|---:|---|\n",
            count);
        compareReads(names, turns);
        compareTheRest(programs, names, turns);
    }
    return 0;
}
