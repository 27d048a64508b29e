#include "bench_clients.h"
#include "servers.h"
#include "service_bench.h"

namespace bench {

namespace {

std::string programs;

} // namespace

void setPrograms(const char* directory) {
    programs = directory;
}

std::vector<std::string> daemonCommand() {
    return {programs + "/kelconfd"};
}

std::vector<std::string> floorCommand(const std::vector<std::string>& arguments) {
    std::vector<std::string> command{programs + "/bus_floor"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

void awaitDaemon() {
    BusClient{kGet}.ask(getRequest({parameterNames(2)[0]}));
}

std::vector<std::string> spread(const std::vector<std::string>& names, std::size_t count) {
    std::vector<std::string> some;
    for (std::size_t i = 0; i < count; ++i) {
        some.push_back(names[i * names.size() / count]);
    }
    return some;
}

void append(std::vector<double>& to, const std::vector<double>& from) {
    to.insert(to.end(), from.begin(), from.end());
}

} // namespace bench
