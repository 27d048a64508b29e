// batch: many commands in one process, with one client.

#include "cli/command_line.h"
#include "cli/commands/commands.h"
#include "cli/output/output.h"
#include "cli/session/bus_session.h"

#include <iostream>
#include <istream>
#include <string>
#include <vector>

namespace kelconf::cli {

namespace {

// The words of a line as a shell reads them, without any expansion. False: a quote stays open.
bool splitWords(const std::string& line, std::vector<std::string>& words) {
    std::string word;
    bool begun = false;
    char quote = 0;
    for (std::size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (quote != 0 && c == quote) {
            quote = 0;
        } else if (c == '\\' && quote != '\'' && i + 1 < line.size()) {
            word += line[++i];
            begun = true;
        } else if (quote != 0) {
            word += c;
        } else if (c == '\'' || c == '"') {
            quote = c;
            begun = true;
        } else if (c == ' ' || c == '\t' || c == '\r') {
            if (begun) {
                words.push_back(std::move(word));
            }
            word.clear();
            begun = false;
        } else if (c == '#' && !begun) {
            break;
        } else {
            word += c;
            begun = true;
        }
    }
    if (begun) {
        words.push_back(std::move(word));
    }
    return quote == 0;
}

int runLine(const std::string& line, std::size_t number) {
    std::vector<std::string> words{"kelctl"};
    if (!splitWords(line, words)) {
        complain("line " + std::to_string(number) + ": a quote is not closed");
        return kUsage;
    }
    if (words.size() == 1) {
        return kDone;
    }
    std::vector<const char*> texts;
    texts.reserve(words.size());
    for (const std::string& word : words) {
        texts.push_back(word.c_str());
    }
    const Invocation command = readCommandLine(static_cast<int>(texts.size()), texts.data());
    if (command.command == nullptr) {
        return command.status;
    }
    if (command.command->run == runBatch) {
        complain("line " + std::to_string(number) + ": a batch in a batch");
        return kUsage;
    }
    return run(*command.command, command.options);
}

} // namespace

int runBatch(const Options& options) {
    keepClient();
    int status = kDone;
    std::string line;
    for (std::size_t number = 1; std::getline(std::cin, line); ++number) {
        const int ended = runLine(line, number);
        beQuiet(options.quiet);
        status = status == kDone ? ended : status;
        if (!flushOutput()) {
            break;
        }
    }
    dropClient();
    return status;
}

} // namespace kelconf::cli
