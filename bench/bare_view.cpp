// bare_view NAME: the least that a program does to print a value out of the view.
#include "paths.h"
#include "view/reader.h"

#include <array>
#include <cstdio>

int main(int argc, char** argv) {
    kelconf::view::Reader reader{kelconf::paths::kView};
    std::array<char, 1024> value{};
    std::size_t length = 0;
    if (argc != 2 ||
        reader.get(argv[1], value.data(), value.size(), length) != kelconf::view::Outcome::kOk) {
        return 1;
    }
    std::puts(value.data());
    return 0;
}
