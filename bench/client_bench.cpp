// client_bench BIN [ROUNDS]: what libkelbus and kelctl add to the bus, in a device root. Prints a
// table in Markdown. BIN: the directory of the programs.
#include "bench_clients.h"
#include "servers.h"
#include "service_bench.h"
#include "turns.h"

#include <kelbus.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>

namespace {

using namespace bench; // NOLINT(google-build-using-namespace): the parts of one program

namespace fs = std::filesystem;

constexpr int kLimit = 60'000; // ms
constexpr const char* kName = "cam.p.7.v.s3";

struct CloseClient {
    void operator()(kelbus* client) const noexcept { kelbus_close(client); }
};
using Client = std::unique_ptr<kelbus, CloseClient>;

Client openClient() {
    kelbus* opened = nullptr;
    if (kelbus_open(&opened) != KELBUS_OK) {
        giveUp("no client");
    }
    return Client{opened};
}

void check(const Client& client, kelbus_error error) {
    if (error != KELBUS_OK) {
        giveUp(kelbus_message(client.get()));
    }
}

void clearFlash() {
    for (const char* directory : {"/mnt/nand/conf", "/mnt/backup/conf"}) {
        for (const auto& entry : fs::directory_iterator(directory)) {
            fs::remove_all(entry.path());
        }
    }
}

// Ten leaves an instance.
void installTree(long count) {
    std::ofstream tree{"/etc/neutral_tree.xml"};
    tree << "<tree><cam type=\"trunk\"><p type=\"multiple_instance\" number=\"" << count / 10
         << "\"><v type=\"branch\">";
    for (int i = 0; i < 10; ++i) {
        tree << "<s" << i << " type=\"string\">a value of a camera %auto</s" << i << ">";
    }
    tree << "</v></p></cam></tree>";
}

void getByLibrary(const Client& client) {
    char* value = nullptr;
    check(client, kelbus_get(client.get(), kName, &value, kLimit));
    kelbus_free(value);
}

void getAllByLibrary(const Client& client) {
    kelbus_values* values = nullptr;
    check(client, kelbus_get_all(client.get(), &values, kLimit));
    kelbus_values_free(values);
}

// Python with a client of its own, which gets the value as often as it is told.
class Python {
  public:
    Python() {
        int ends[2] = {-1, -1};
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
            giveUp("no socket");
        }
        process_ = fork();
        if (process_ == 0) {
            dup2(ends[1], STDIN_FILENO);
            dup2(ends[1], STDOUT_FILENO);
            execlp("python3", "python3", "-c",
                   "import sys, kelbus\n"
                   "bus = kelbus.Client(timeout=60)\n"
                   "for line in sys.stdin:\n"
                   "    for _ in range(int(line)): bus.get(sys.argv[1])\n"
                   "    print(flush=True)\n",
                   kName, nullptr);
            _exit(127);
        }
        close(ends[1]);
        stream_ = ends[0];
    }
    ~Python() {
        close(stream_);
        waitpid(process_, nullptr, 0);
    }
    Python(const Python&) = delete;
    Python& operator=(const Python&) = delete;
    Python(Python&&) = delete;
    Python& operator=(Python&&) = delete;

    void get(int count) const {
        const std::string order = std::to_string(count) + "\n";
        char done = 0;
        if (write(stream_, order.data(), order.size()) < 0 || read(stream_, &done, 1) != 1) {
            giveUp("Python does not get its value");
        }
    }

  private:
    pid_t process_ = -1;
    int stream_ = -1;
};

void getManyByLibrary(const Client& client, int count) {
    for (int i = 0; i < count; ++i) {
        getByLibrary(client);
    }
}

// The path of a file with so many commands.
std::string writeBatch(int count) {
    const std::string path = "/tmp/batch";
    std::ofstream file{path};
    for (int i = 0; i < count; ++i) {
        file << "get " << kName << "\n";
    }
    return path;
}

struct Contest {
    const char* title;
    std::vector<Rival> rivals; // what is measured, then its yardstick
    int repeats;
    const char* goal;
};

void print(const Contest& contest) {
    const Rival& own = contest.rivals[0];
    const Rival& bare = contest.rivals[1];
    std::printf("| %s | %.1f | %.1f | %.2f | %s |\n", contest.title, median(own.times),
                median(bare.times), medianRatio(own.times, bare.times), contest.goal);
}

void playAll(const std::string& programs, int rounds) {
    const Client client = openClient();
    BusClient get{kGet};
    BusClient all{kGetAll};
    const std::string request = getRequest({kName});
    constexpr int kGets = 1000; // of Python at an order
    const Python python;
    python.get(1); // it has started then
    const std::vector<std::string> kelctl{programs + "/kelctl", "get", kName};
    const std::vector<std::string> list{programs + "/kelctl", "list"};
    const std::vector<std::string> matching{programs + "/kelctl", "list", "cam.*.s?"}; // all
    const std::vector<std::string> batch{"/bin/sh", "-c",
                                         programs + "/kelctl batch <" + writeBatch(kGets)};
    const std::vector<std::string> bare{programs + "/bare_request", kGet, request};
    std::vector<Contest> contests{
        {"libkelbus, GET of one name, over a bare request",
         {{nullptr, [&] { getByLibrary(client); }}, {nullptr, [&] { get.ask(request); }}},
         2000,
         "<= 1.05"},
        {"Python, 1,000 gets of one name, over as many C calls",
         {{nullptr, [&] { python.get(kGets); }},
          {nullptr, [&] { getManyByLibrary(client, kGets); }}},
         1,
         "<= 2"},
        {"libkelbus, all parameters, over a bare request",
         {{nullptr, [&] { getAllByLibrary(client); }}, {nullptr, [&] { all.ask(kGetAllRequest); }}},
         5,
         ""},
        {"kelctl get NAME, over a bare program with the same request",
         {{nullptr, [&] { runToEnd(kelctl); }}, {nullptr, [&] { runToEnd(bare); }}},
         20,
         "<= 1.5"},
        {"kelctl list, over a bare request in a running process",
         {{nullptr, [&] { runToEnd(list); }}, {nullptr, [&] { all.ask(kGetAllRequest); }}},
         5,
         "<= 3"},
        {"kelctl list with a pattern, over kelctl list",
         {{nullptr, [&] { runToEnd(matching); }}, {nullptr, [&] { runToEnd(list); }}},
         5,
         "<= 1.1"},
        {"kelctl batch of 1,000 gets, over as many C calls in one process",
         {{nullptr, [&] { runToEnd(batch); }}, {nullptr, [&] { getManyByLibrary(client, kGets); }}},
         1,
         "<= 1.3"}};
    std::puts("| what | us | yardstick, us | ratio | goal |\n|---|---:|---:|---:|---|");
    for (Contest& contest : contests) {
        playTurns(contest.rivals, 4 * rounds, contest.repeats);
        print(contest);
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fputs("usage: client_bench BIN [ROUNDS]\n", stderr);
        return 2;
    }
    const std::string programs = argv[1];
    const int rounds = argc > 2 ? static_cast<int>(std::strtol(argv[2], nullptr, 10)) : 5;
    clearFlash();
    installTree(50'000);
    runToEnd({programs + "/kelconf-init"});
    setPrograms(argv[1]);
    const Server daemon{daemonCommand()};
    awaitDaemon();
    playAll(programs, rounds);
    return 0;
}
