// What the recorder (recorder.cpp), the scenes and the image builder tell each other.
//
// A trace is a file of records in the order in which things happened, one write(2) each: what the
// programs of the device did to the files below /mnt, and marks of the scene between them. What
// an operation did is recorded before the next one begins, whatever the thread.
#pragma once

#include <sys/uio.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace kelconf::powercut {

enum class Op : std::uint32_t {
    kCreate,     // path, file
    kUnlink,     // path, file
    kRename,     // path: the new name, data: the old one
    kLink,       // path: the new name
    kWrite,      // file, number: offset, data
    kTruncate,   // file, number: new size
    kFlush,      // fsync of a file
    kFlushData,  // fdatasync of a file
    kFlushNames, // either of a directory: path
    kSync,       // of everything
    // Marks of the scene. Of a SET: path is the name, data the value, file the SET's number.
    kSent,     // number: a Promise
    kAnswered, // with success
    kTree,     // data: the parameter tree from now on
    kEnded,    // the service, not orderly: what was answered and not promised may be gone
    // What is judged, or not.
    kSettled, // all that was answered is stored for good
    kQuiet,   // not from here on: a fault that no store survives, or an image being put in place
    kRestored // again
};

// What an answer promises.
enum Promise : std::int64_t {
    kNothing, // storage refuses: stored later, or lost
    kLater,   // SET_ACTION: stored by the next pass
    kStored   // SET_ACTION_DIRECT: stored, with all that was answered before
};

struct Record {
    Op op{};
    std::uint64_t file = 0; // inode number
    std::int64_t number = 0;
    std::string path, data;
};

struct StoredFile {
    std::string path;
    std::uint64_t file;
    std::string content;
};

struct RecordHead {
    Op op{};
    std::uint32_t path_size = 0;
    std::uint64_t file = 0;
    std::int64_t number = 0;
    std::uint64_t data_size = 0;
};

// To a descriptor that appends. False when it was not written in one piece.
inline bool appendRecord(int fd, const Record& record) {
    RecordHead head{record.op, static_cast<std::uint32_t>(record.path.size()), record.file,
                    record.number, record.data.size()};
    auto path = record.path;
    auto data = record.data;
    const std::array<iovec, 3> parts{
        {{&head, sizeof head}, {path.data(), path.size()}, {data.data(), data.size()}}};
    return writev(fd, parts.data(), parts.size()) ==
           static_cast<ssize_t>(sizeof head + path.size() + data.size());
}

// Faults, in memory that the scene and the recorded program share. From call `skip` + 1 on of those
// that `calls` and `path` choose, `times` fail with `error`; kKill kills the program there.
struct Control {
    std::atomic<int> skip, times, error;
    char calls[8]; // o open for writing, w write, t truncate, d names, s flushes
    char path[32]; // how the path ends; empty: any
};
inline constexpr int kKill = -1;

inline constexpr const char* kTracePath = "/tmp/powercut.trace";
inline constexpr const char* kControlPath = "/tmp/powercut.control";
// Waits and clocks of the recorded program run so many times faster.
inline constexpr int kHaste = 50;

} // namespace kelconf::powercut
