// Requests as any local process may send them. The first byte chooses the endpoint.
#include "bus/bus_xml.h"
#include "lists.h"

using namespace kelconf;
using namespace kelconf::fuzz;

namespace {

// Every answer is a document that its own kind of client reads.
void requireAnswer(char* document, std::int32_t length) {
    const OwnedText owner{document};
    require(document != nullptr && length > 0 && document[length - 1] == '\n');
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    makeLists();
    for (const char* name : {"a", "network.http.port", "network.name", "system.time", "wlan0"}) {
        addLive(name, "value of <&\"' \xc3\xa9", false);
    }
    sortParamList();
    std::freopen("/dev/null", "w", stdout); // the group answer's trace line
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::string_view text = textOf(data, size).substr(1);
    const auto bytes = static_cast<std::int32_t>(text.size());
    std::int32_t length = 0;
    switch (data[0] % 4) {
    case 0: {
        parseGetRequestXML(text.data(), bytes);
        const std::int32_t found = searchValueForGetAnswerList();
        requireAnswer(genGetReponseXML(static_cast<std::uint8_t>(found), &length), length);
        break;
    }
    case 1:
        parseGetAllRequestXML(text.data(), bytes);
        requireAnswer(genGetAllReponseXML(&length), length);
        break;
    case 2:
        parseGetGroupRequestXML(text.data(), bytes);
        requireAnswer(genGetGroupReponseXML(&length), length);
        break;
    default: {
        const std::int32_t code = parseSetRequestXML(text.data(), bytes);
        require(code >= kSetAction && code <= kNotASetRequest);
        require(code != kNotASetRequest || CheckSetAnswerListLength() == 0);
    }
    }
    emptyRequests();
    return 0;
}
