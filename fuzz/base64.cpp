// What is encoded decodes to the same bytes; any text decodes within its own room.
#include "qlibc/use_qlibc.h"
#include "require.h"

#include <memory>
#include <string>

using namespace kelconf::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::unique_ptr<char, decltype(&std::free)> encoded{qbase64_encode(data, size),
                                                              &std::free};
    require(encoded != nullptr);
    require(qbase64_decode(encoded.get()) == size);
    require(std::string_view(encoded.get(), size) == textOf(data, size));

    std::string text(textOf(data, size));
    require(qbase64_decode(text.data()) <= text.size() * 3 / 4);
    return 0;
}
