// What every fuzz target needs: an entry point that libFuzzer calls, a check that stays in every
// build, and a parser that keeps its remarks to itself.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>
#include <libxml/xmlerror.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace kelconf::fuzz {

// Ends the process, which libFuzzer reports with the input.
inline void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

inline std::string_view textOf(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

inline void ignoreRemark(void* /*context*/, const char* /*format*/, ...) {}

inline void quietParser() {
    xmlSetGenericErrorFunc(nullptr, ignoreRemark);
}

} // namespace kelconf::fuzz
