// kelctl: the configuration bus at a shell (docs/kelctl.md).

#include "cli/command_line.h"
#include "cli/completion.h"
#include "cli/output/output.h"

#include <cstdlib>
#include <exception>
#include <string_view>

int main(int argc, char** argv) {
    using namespace kelconf::cli;
    guardStandardDescriptors();
    try {
        if (argc > 1 && std::string_view{argv[1]} == kCompleteWord) {
            return finishOutput(complete({argv + 2, argv + argc}));
        }
        const Invocation line = readCommandLine(argc, argv);
        return finishOutput(line.command == nullptr ? line.status
                                                    : run(*line.command, line.options));
    } catch (const std::exception& failure) {
        complain(failure.what()); // only memory that cannot be had comes here
        return kBroken;
    }
}
