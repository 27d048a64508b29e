// The scanner of answers accepts nothing that an XML parser reads otherwise.
#include "client/reply_scan.h"
#include "require.h"

using namespace kelconf;
using namespace kelconf::fuzz;

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    quietParser();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes = textOf(data, size);
    static ReplyReader reader;
    ReplyDocument scanned;
    ReplyDocument parsed;
    const bool well_formed = reader.parse(bytes, parsed);
    if (!scanReply(bytes, scanned)) {
        return 0;
    }
    require(well_formed && scanned.root == parsed.root);
    require(scanned.parameters.size() == parsed.parameters.size());
    for (std::size_t i = 0; i < parsed.parameters.size(); ++i) {
        const ReplyParameter& a = scanned.parameters[i];
        const ReplyParameter& b = parsed.parameters[i];
        require(std::string_view(scanned.text(a.name)) == parsed.text(b.name));
        require(std::string_view(scanned.text(a.value)) == parsed.text(b.value));
        require(std::string_view(scanned.text(a.prev_value)) == parsed.text(b.prev_value));
    }
    return 0;
}
