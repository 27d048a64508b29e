#include "powercut/scenes.h"

#include "base/fd.h"
#include "daemon/bus_client.h"
#include "daemon/daemon_process.h"
#include "powercut/judge.h"
#include "support/files.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace kelconf::powercut {

namespace {

constexpr const char* kLive = "/mnt/nand/conf/conf.db";
constexpr std::chrono::milliseconds kPoll{20};
constexpr int kPatience = 500; // polls until a scene has failed
constexpr int kStill = 10;     // polls, two periods of the upkeep

using Words = std::vector<std::string>;

bool has(const Words& words, const char* word) {
    return std::ranges::count(words, word) > 0;
}

Values treeOf(const Words& words) {
    Values tree{{"private.short", "factory"},
                {"private.long", "factory"},
                {"private.user_password", "factory"},
                {"private.admin_passwd", "root"},
                {"private.encrypt_campass", has(words, "plain") ? "0" : "1"}};
    for (int i = 10; i < 45; ++i) {
        tree["private.v" + std::to_string(i)] =
            (i % 5 == 0 ? std::string(700, 'f') : "factory") + std::to_string(i);
    }
    if (has(words, "new")) {
        tree["private.fresh"] = tree["private.fresh_password"] = "factory";
        tree["private.more"] = std::string(2000, 'm');
    }
    return tree;
}

std::uint64_t inodeOf(const std::string& path) {
    const auto files = storedFiles();
    const auto found = std::ranges::find(files, path, &StoredFile::path);
    return found == files.end() ? 0 : found->file;
}

bool ended(pid_t process) {
    siginfo_t info{};
    return waitid(P_PID, static_cast<id_t>(process), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid != 0;
}

std::vector<Record> readTrace() {
    const std::string bytes = test::readFile(kTracePath);
    std::vector<Record> trace;
    for (std::size_t at = 0; at < bytes.size();) {
        RecordHead head;
        std::memcpy(&head, bytes.data() + at, sizeof head);
        at += sizeof head;
        trace.push_back({head.op, head.file, head.number, bytes.substr(at, head.path_size),
                         bytes.substr(at + head.path_size, head.data_size)});
        at += head.path_size + head.data_size;
    }
    return trace;
}

Control* newControl() {
    const Fd file{open(kControlPath, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)};
    void* memory =
        ftruncate(file.get(), sizeof(Control)) != 0
            ? MAP_FAILED
            : mmap(nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
    if (memory == MAP_FAILED) {
        throw std::runtime_error("no memory to share");
    }
    return static_cast<Control*>(memory);
}

class Stage {
  public:
    Stage()
        : trace_{open(kTracePath, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600)},
          control_{newControl(), [](Control* control) { munmap(control, sizeof *control); }} {
        test::resetDevice("");
    }

    void step(const Words& words) {
        const std::string& verb = words.at(0);
        if (!std::exchange(begun_, true) && verb != "tree") {
            setTree({});
        }
        if (verb == "tree") {
            setTree(words);
        } else if (verb == "database") {
            makeDatabase(words);
        } else if (verb == "init") {
            setenv("LD_PRELOAD", POWERCUT_RECORDER, 1);
            test::runProgram("kelconf-init");
            unsetenv("LD_PRELOAD");
        } else if (verb == "start") {
            daemon_ = std::make_unique<test::Daemon>(Words{"LD_PRELOAD=" POWERCUT_RECORDER});
            if (!daemon_->awaitReady()) {
                throw std::runtime_error("kelconfd does not start");
            }
        } else if (verb == "direct" || verb == "set" || verb == "weak") {
            const std::string& value = words.at(2);
            send(verb, "private." + words.at(1),
                 value[0] == '@' ? std::string(std::stoul(value.substr(1)), value.back()) : value);
        } else if (verb == "settle") {
            settle();
        } else if (verb == "stop") {
            daemon_->stop();
            mark(Op::kSettled);
        } else if (verb == "kill") {
            daemon_->killNow();
            mark(Op::kEnded);
        } else if (verb == "fall") {
            daemon_->awaitEnd();
            mark(Op::kEnded);
            control_->times = 0;
        } else if (verb == "cut") {
            cut(words.at(1) == "loose" ? Model::kLoose : Model::kOrdered);
        } else if (verb == "delete") {
            mark(Op::kUnlink, kLive, "", inodeOf(kLive));
            std::filesystem::remove(kLive);
            mark(Op::kSync);
        } else if (verb == "damage") {
            damage(words.at(1), words.at(2));
        } else if (verb == "fault") {
            std::strncpy(control_->calls, words.at(1).c_str(), sizeof control_->calls - 1);
            std::strncpy(control_->path, words.at(2) == "any" ? "" : words.at(2).c_str(),
                         sizeof control_->path - 1);
            control_->skip = std::stoi(words.at(3));
            control_->error = std::stoi(words.at(5));
            control_->times = std::stoi(words.at(4));
        } else if (verb == "heal") {
            control_->times = 0;
        } else if (verb == "quiet") {
            mark(Op::kQuiet);
        } else {
            throw std::runtime_error("no such step");
        }
    }

    Recording end(const std::string& broken) {
        daemon_.reset();
        return {before_, readTrace(), broken};
    }

  private:
    void mark(Op op, const std::string& path = "", const std::string& data = "",
              std::uint64_t file = 0, std::int64_t number = 0) const {
        if (!appendRecord(trace_.get(), {op, file, number, path, data})) {
            throw std::runtime_error("cannot write the trace");
        }
    }

    void setTree(const Words& words) const {
        const Values tree = treeOf(words);
        std::string text;
        for (const auto& [name, value] : tree) {
            text.append(name).append("\n").append(value).append("\n");
        }
        mark(Op::kTree, "", text);
        test::writeFile("/etc/neutral_tree.xml", treeDocument(tree));
    }

    void makeDatabase(const Words& words) {
        std::string insert = "INSERT INTO CONFIG VALUES";
        for (const auto& [name, value] : treeOf(words)) {
            insert += "('" + name + "','" + (name == "private.short" ? "by hand" : value) +
                      "','string'),";
        }
        insert.back() = ';';
        test::sql(kLive,
                  "CREATE TABLE CONFIG (NAME TEXT PRIMARY KEY NOT NULL, VALUE TEXT, TYPE TEXT)");
        test::sql(kLive, insert);
        if (has(words, "sealed")) {
            sealLive();
        }
        before_ = storedFiles();
        mark(Op::kSent, "private.short", "by hand", ++sets_, kStored);
        mark(Op::kAnswered, "private.short", "", sets_, kStored);
    }

    void send(const std::string& verb, const std::string& name, const std::string& value) {
        const Promise promise = verb == "direct" ? kStored : verb == "set" ? kLater : kNothing;
        const std::uint64_t id = ++sets_;
        const test::Peer client{ZMQ_REQ, endpoints::kSet};
        mark(Op::kSent, name, value, id, promise);
        client.send({test::setRequest(verb == "set" ? "SET_ACTION" : "SET_ACTION_DIRECT",
                                      {{name, value}})});
        test::Parts reply;
        while (reply.empty() && !ended(daemon_->process())) {
            reply = client.receive(kPoll);
        }
        if (!reply.empty() && test::bodyOf(reply) != test::kSetDone) {
            throw std::runtime_error(reply[0]);
        }
        if (!reply.empty()) {
            mark(Op::kAnswered, name, "", id, promise);
        }
    }

    void settle() const {
        if (control_->times > 0) {
            throw std::runtime_error("the storage has not healed");
        }
        std::uintmax_t size = 0;
        const auto settled = [] {
            return liveSealed() && backupSealed() &&
                   test::readFile(kLive) == test::readFile("/mnt/backup/conf/conf_backup.db");
        };
        for (int since = 0, polls = 0; since < kStill || !settled(); ++since, ++polls) {
            if (polls > kPatience) {
                throw std::runtime_error(!liveSealed()     ? "live file is not as it was sealed"
                                         : !backupSealed() ? "backup is not as it was sealed"
                                                           : "backup is not as the live file");
            }
            std::this_thread::sleep_for(kPoll);
            const std::uintmax_t now = std::filesystem::file_size(kTracePath);
            since = std::exchange(size, now) == now ? since : 0;
        }
        mark(Op::kSettled);
    }

    void cut(Model model) const {
        Disk disk{model, before_};
        for (const Record& record : readTrace()) {
            disk.apply(record);
        }
        std::vector<Image> images;
        disk.eachImage(2, [&](const Image& image, const auto&) { images.push_back(image); });
        mark(Op::kQuiet);
        for (const StoredFile& file : storedFiles()) {
            mark(Op::kUnlink, file.path, "", file.file);
        }
        putImage(images.back());
        for (const StoredFile& file : storedFiles()) {
            mark(Op::kCreate, file.path, "", file.file);
            mark(Op::kWrite, file.path, file.content, file.file);
        }
        mark(Op::kSync);
        mark(Op::kRestored);
    }

    void damage(const std::string& how, const std::string& value) const {
        constexpr std::size_t kPage = 4096;
        std::string content = test::readFile(kLive);
        const std::size_t found = content.find(value);
        if (found == std::string::npos) {
            throw std::runtime_error("nothing to damage");
        }
        const std::size_t at = how == "page" ? found / kPage * kPage : found;
        const std::string bytes = how == "page" ? std::string(16, '\0') : "#";
        const auto written = std::filesystem::last_write_time(kLive);
        std::fstream{kLive, std::ios::in | std::ios::out | std::ios::binary}.seekp(
            static_cast<std::streamoff>(at))
            << bytes;
        std::filesystem::last_write_time(kLive, written); // rot leaves no trace in the times
        mark(Op::kWrite, kLive, bytes, inodeOf(kLive), static_cast<std::int64_t>(at));
        mark(Op::kSync);
    }

    Fd trace_;
    std::unique_ptr<Control, void (*)(Control*)> control_;
    bool begun_ = false;
    std::unique_ptr<test::Daemon> daemon_;
    std::uint64_t sets_ = 0;
    std::vector<StoredFile> before_;
};

} // namespace

std::vector<Scene> readScenes() {
    std::vector<Scene> scenes;
    std::ifstream lines{POWERCUT_SCENES};
    for (std::string line; std::getline(lines, line);) {
        const std::size_t colon = line.find(':');
        if (!line.starts_with('#') && colon != std::string::npos) {
            scenes.push_back({line.substr(0, colon), line.substr(colon + 1)});
        }
    }
    return scenes;
}

Recording play(const Scene& scene) {
    Stage stage;
    std::istringstream steps(scene.script);
    for (std::string step; std::getline(steps, step, ';');) {
        std::istringstream line(step);
        try {
            stage.step({std::istream_iterator<std::string>(line), {}});
        } catch (const std::exception& failure) {
            return stage.end(step + ": " + failure.what());
        }
    }
    return stage.end("");
}

} // namespace kelconf::powercut
