#include "support/device_log.h"

#include <poll.h>
#include <sys/inotify.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <chrono>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace kelconf::test {
namespace {

constexpr const char* kSyslogFile = "/var/log/syslog";
constexpr const char* kConsoleFile = "/var/log/console";
constexpr const char* kConsole = "/dev/console";
constexpr std::chrono::seconds kPatience{30};

std::string readFrom(const char* path, std::size_t offset) {
    std::ifstream file(path, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(offset));
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

// Reports each growth of a file; the watch ends with the object.
class GrowthWatch {
  public:
    explicit GrowthWatch(const char* path) : fd_(inotify_init1(IN_CLOEXEC)) {
        if (fd_ < 0 || inotify_add_watch(fd_, path, IN_MODIFY) < 0) {
            throw std::runtime_error(std::string("cannot watch ") + path);
        }
    }
    GrowthWatch(const GrowthWatch&) = delete;
    GrowthWatch& operator=(const GrowthWatch&) = delete;
    GrowthWatch(GrowthWatch&&) = delete;
    GrowthWatch& operator=(GrowthWatch&&) = delete;
    ~GrowthWatch() { close(fd_); }

    // False when nothing came before the deadline.
    bool await(std::chrono::steady_clock::time_point deadline) const {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd event{fd_, POLLIN, 0};
        if (left.count() <= 0 || poll(&event, 1, static_cast<int>(left.count())) <= 0) {
            return false;
        }
        char events[4096];
        return read(fd_, events, sizeof events) > 0;
    }

  private:
    int fd_;
};

// The content of `path` from `offset` on once `marker` stands in it; all up to the marker's line
// end, which moves the offset on.
std::string awaitMarker(const char* path, const GrowthWatch& watch, std::size_t& offset,
                        const std::string& marker) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (true) {
        std::string content = readFrom(path, offset);
        const std::size_t at = content.find(marker);
        const std::size_t end = at == std::string::npos ? at : content.find('\n', at);
        if (end != std::string::npos) {
            offset += end + 1;
            content.resize(at);
            return content;
        }
        if (!watch.await(deadline)) {
            throw std::runtime_error(marker + " did not arrive in " + path);
        }
    }
}

int hexDigit(char c) {
    return c <= '9' ? c - '0' : c - 'a' + 10;
}

std::string unescaped(std::string_view line) {
    std::string bytes;
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (line[i] != '\\') {
            bytes += line[i];
        } else if (line.at(++i) == 'x') {
            bytes += static_cast<char>(hexDigit(line.at(i + 1)) * 16 + hexDigit(line.at(i + 2)));
            i += 2;
        } else {
            bytes += line[i] == 'n' ? '\n' : line[i];
        }
    }
    return bytes;
}

// "<PRI>Mmm dd hh:mm:ss ident: text", as the C library's syslog() sends it.
SyslogRecord parsed(std::string_view line) {
    constexpr std::size_t kStampSize = 16; // "Mmm dd hh:mm:ss "
    const std::size_t bracket = line.find('>');
    const std::size_t ident =
        bracket == std::string_view::npos ? bracket : bracket + 1 + kStampSize;
    const std::size_t colon = line.find(": ", ident);
    if (!line.starts_with('<') || colon == std::string_view::npos) {
        throw std::runtime_error("not a syslog record: " + std::string(line));
    }
    int number = 0;
    std::from_chars(line.data() + 1, line.data() + bracket, number);
    return {number & LOG_FACMASK, LOG_PRI(number), unescaped(line.substr(ident, colon - ident)),
            unescaped(line.substr(colon + 2))};
}

void markConsole(const std::string& marker) {
    std::ofstream console(kConsole);
    if (!(console << marker << "\n" << std::flush)) {
        throw std::runtime_error("cannot write to /dev/console");
    }
}

} // namespace

DeviceLog::DeviceLog() {
    take();
}

LogRecords DeviceLog::take() {
    static int markers = 0; // never the same twice in a process
    // Kept open: the kernel takes some 10 ms to end a watch.
    static const GrowthWatch console_watch(kConsoleFile);
    static const GrowthWatch syslog_watch(kSyslogFile);
    const std::string marker =
        "device-log-marker-" + std::to_string(getpid()) + "-" + std::to_string(++markers) + ".";
    syslog(LOG_DEBUG, "%s\n", marker.c_str());
    markConsole(marker);
    LogRecords records;
    records.console = awaitMarker(kConsoleFile, console_watch, console_offset_, marker);
    // The marker's own record begins on the line where the content now ends.
    const std::string lines = awaitMarker(kSyslogFile, syslog_watch, syslog_offset_, marker);
    std::size_t begin = 0;
    for (std::size_t end = 0; (end = lines.find('\n', begin)) != std::string::npos;
         begin = end + 1) {
        records.syslog.push_back(parsed(std::string_view(lines).substr(begin, end - begin)));
    }
    return records;
}

std::vector<std::string> texts(const std::vector<SyslogRecord>& records) {
    std::vector<std::string> result;
    std::transform(records.begin(), records.end(), std::back_inserter(result),
                   [](const SyslogRecord& record) { return record.text; });
    return result;
}

std::string withoutTimes(std::string_view console) {
    constexpr std::string_view kShape = "[00:00:00]";
    std::string result;
    while (!console.empty()) {
        const std::string_view head = console.substr(0, kShape.size());
        const bool stamp = std::equal(
            kShape.begin(), kShape.end(), head.begin(), head.end(), [](char shape, char c) {
                return shape == '0' ? std::isdigit(static_cast<unsigned char>(c)) != 0 : c == shape;
            });
        result += stamp ? std::string_view("[TIME]") : console.substr(0, 1);
        console.remove_prefix(stamp ? kShape.size() : 1);
    }
    return result;
}

} // namespace kelconf::test
