#include "log/keldebug.h"

#include "paths.h"
#include "text/text.h"

#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string_view>

namespace kelconf {

namespace {

constexpr std::size_t kMessageSize = 4096;
constexpr std::size_t kNameSize = 256;
constexpr std::size_t kStatusSize = 1024;

struct CloseFile {
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

// What a level selects in each sink.
struct Severity {
    int priority;
    const char* colour; // opening sequence on the console
    const char* reset;
};

const Severity& severityOf(std::int32_t level) {
    static constexpr Severity kInfo{LOG_INFO, "", ""};
    static constexpr Severity kWarning{LOG_WARNING, "\x1b[1;33m", "\x1b[0m"};
    static constexpr Severity kError{LOG_ERR, "\x1b[1;31m", "\x1b[0m"};
    switch (level) {
    case kLogInfo:
        return kInfo;
    case kLogWarning:
        return kWarning;
    default:
        return kError;
    }
}

// The device console is opened anew for each record: it may be replugged, and a record must
// not wait in a buffer of ours.
void writeConsole(std::int32_t level, const std::tm& now, const char* process_name,
                  const char* message) {
    const File console{std::fopen(paths::kConsole, "we")};
    if (!console) {
        return;
    }
    const Severity& severity = severityOf(level);
    std::fprintf(console.get(), "[%.2d:%.2d:%.2d]%s[%s]%s%s", now.tm_hour, now.tm_min, now.tm_sec,
                 severity.colour, process_name, message, severity.reset);
    std::fflush(console.get());
}

// The name in a first status line "Name:\tNAME\n"; it runs to the end of the text when the
// line end is missing, and is empty when the colon is.
std::string_view nameInStatusLine(std::string_view line) {
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) {
        return {};
    }
    line.remove_prefix(colon + 1);
    const std::size_t start = line.find_first_not_of('\t');
    if (start == std::string_view::npos) {
        return {};
    }
    line.remove_prefix(start);
    return line.substr(0, line.find('\n'));
}

} // namespace

std::int32_t findNameByPID(char* buffer, std::int32_t size, std::int32_t pid) {
    std::array<char, kStatusSize> text{};
    std::snprintf(text.data(), text.size(), paths::kProcessStatus, pid);
    const File status{std::fopen(text.data(), "re")};
    if (!status) {
        return 0;
    }
    if (std::fgets(text.data(), static_cast<int>(text.size()), status.get()) == nullptr ||
        buffer == nullptr || size < 1) {
        return 1;
    }
    const std::string_view name = nameInStatusLine(text.data());
    const std::size_t room = static_cast<std::size_t>(size) - 1;
    const std::size_t length = name.size() < room ? name.size() : room;
    std::memcpy(buffer, name.data(), length);
    std::memset(buffer + length, 0, room - length);
    return 1;
}

void writeSyslog(std::int32_t level, std::uint8_t destination, const char* process_name,
                 const char* message) {
    if (destination == kToConsole) {
        return;
    }
    syslog(severityOf(level).priority, "[%s]%s", process_name, message);
}

void keldebug(std::int32_t level, std::uint8_t destination, const char* format, ...) {
    std::array<char, kMessageSize> message{};
    std::array<char, kNameSize> name{};
    const std::time_t seconds = std::time(nullptr);
    std::tm now{};
    localtime_r(&seconds, &now);
    findNameByPID(name.data(), static_cast<std::int32_t>(name.size()), getpid());

    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(message.data(), message.size(), format, arguments);
    va_end(arguments);

    writeSyslog(level, destination, name.data(), message.data());
    if (destination != kToSyslog) {
        writeConsole(level, now, name.data(), message.data());
    }
}

} // namespace kelconf
