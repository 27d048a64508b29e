// A file that calls itself a view: read without harm. The input replaces the beginning of a good
// one, its first two bytes say from where; what the publisher would change meanwhile stays.
#include "base/fd.h"
#include "require.h"
#include "view/publisher.h"
#include "view/reader.h"

#include <fcntl.h>

#include <algorithm>
#include <string>

using namespace kelconf;
using namespace kelconf::fuzz;

namespace {

constexpr const char* kFile = "/tmp/view";
constexpr std::size_t kSequence = offsetof(view::Header, sequence);

const std::string& goodView() {
    static const std::string content = [] {
        const auto publisher = view::Publisher::publish(
            kFile, {{"a", "1", false}, {"a.b", "two words", false}, {"b", "", true}});
        require(publisher.has_value());
        std::string bytes(4096, '\0');
        const Fd file{open(kFile, O_RDONLY | O_CLOEXEC)};
        require(read(file.get(), bytes.data(), bytes.size()) == 4096);
        return bytes;
    }();
    return content;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string content = goodView();
    if (size < 2) {
        return 0;
    }
    const std::size_t at = (data[0] | std::size_t{data[1]} << 8U) % content.size();
    const std::string_view change = textOf(data, size).substr(2, content.size() - at);
    content.replace(at, change.size(), change);
    content.replace(kSequence, sizeof(std::uint64_t), goodView(), kSequence, sizeof(std::uint64_t));
    unlink(kFile);
    const Fd file{open(kFile, O_RDWR | O_CREAT | O_CLOEXEC, 0600)};
    struct flock whole {};
    whole.l_type = F_WRLCK;
    require(writeAll(file.get(), content.data(), content.size()) &&
            fcntl(file.get(), F_OFD_SETLK, &whole) == 0);

    view::Reader reader{kFile};
    std::string buffer(view::kLongestValue + 1, '\0');
    std::size_t length = 0;
    for (const char* name : {"a", "a.b", "b", "c", ""}) {
        reader.get(name, buffer.data(), buffer.size(), length);
        require(length <= view::kLongestValue);
    }
    const std::string_view names[] = {"a", "a.b", "z"};
    std::vector<view::Place> places;
    reader.getMany(names, buffer, places);
    reader.visit("a", [](const char* name, const char* value, std::size_t bytes) {
        return *name == 'a' && (value == nullptr || bytes <= view::kLongestValue);
    });
    return 0;
}
