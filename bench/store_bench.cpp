// The parts of a build, one by one. Runs inside a private device root (bench/run makes one):
// the operations work on the device's own paths. items_per_second counts parameters, rows or
// records, so that its inverse is the cost of one.

#include "db/default_db.h"
#include "files/md5_sidecar.h"
#include "log/keldebug.h"
#include "paths.h"
#include "tree/tree_file.h"
#include "tree/tree_walker.h"
#include "tree/xitem.h"

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <fstream>
#include <string>

namespace {

using namespace kelconf;

constexpr int kParameters = 5000;
constexpr const char* kTree = "/tmp/store_bench.xml";
constexpr const char* kGuarded = "/tmp/store_bench.bin";
constexpr const char* kSidecar = "/tmp/store_bench.bin.md5";

void writeLeaf(std::ofstream& out, int number) {
    out << "<leaf" << number
        << R"( type="int" range="0..100" step="1" mode="rw" http_access="rw">channel %auto</leaf)"
        << number << ">\n";
}

// kParameters leaves, spelled out, or a tenth of them in one element of ten instances.
void writeTree(bool instances) {
    std::ofstream out(kTree);
    out << R"(<tree><ipcam type="trunk"><group type=)"
        << (instances ? R"("multiple_instance" number="10">)" : R"("branch">)") << '\n';
    const int leaves = instances ? kParameters / 10 : kParameters;
    for (int i = 0; i < leaves; ++i) {
        writeLeaf(out, i);
    }
    out << "</group></ipcam></tree>\n";
}

XmlDoc documentOf(bool instances) {
    writeTree(instances);
    return readTreeFile(kTree);
}

void parseTree(benchmark::State& state) {
    writeTree(false);
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(readTreeFile(kTree));
    }
    state.SetItemsProcessed(state.iterations() * kParameters);
}
BENCHMARK(parseTree)->Unit(benchmark::kMillisecond);

// The walk with the making and the freeing of its items.
void walkTree(benchmark::State& state) {
    const XmlDoc document = documentOf(state.range(0) != 0);
    std::int64_t items = 0;
    for ([[maybe_unused]] auto _ : state) {
        initXitemList();
        parseXmlTree(xmlDocGetRootElement(document.get()));
        items += CheckXitemListLength();
        delXitemList();
    }
    state.SetItemsProcessed(items);
}
BENCHMARK(walkTree)->ArgName("instances")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void insertRows(benchmark::State& state) {
    const XmlDoc document = documentOf(false);
    initXitemList();
    parseXmlTree(xmlDocGetRootElement(document.get()));
    for ([[maybe_unused]] auto _ : state) {
        state.PauseTiming();
        unlink(paths::kDefaultDb);
        createDefaultSQLTable();
        state.ResumeTiming();
        if (insertDefaultSQLEntry() != 1) {
            state.SkipWithError("the default database cannot be opened");
        }
    }
    state.SetItemsProcessed(state.iterations() * CheckXitemListLength());
    delXitemList();
}
BENCHMARK(insertRows)->Unit(benchmark::kMillisecond)->UseRealTime();

// Into the root's own sinks; the argument is the destination.
void logRecord(benchmark::State& state) {
    for ([[maybe_unused]] auto _ : state) {
        keldebug(kLogInfo, static_cast<std::uint8_t>(state.range(0)), "checking %s integrity\n",
                 paths::kDefaultDb);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(logRecord)
    ->ArgName("destination")
    ->Arg(kToSyslog)
    ->Arg(kToConsole)
    ->Arg(kToBoth)
    ->Iterations(5000)
    ->UseRealTime();

void checkDigest(benchmark::State& state) {
    const auto bytes = static_cast<std::size_t>(state.range(0)) << 20;
    std::ofstream(kGuarded) << std::string(bytes, 'x');
    createFileMD5(kGuarded, kSidecar);
    for ([[maybe_unused]] auto _ : state) {
        if (!checkFileMD5(kGuarded, kSidecar)) {
            state.SkipWithError("the sidecar does not match");
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes));
}
BENCHMARK(checkDigest)->ArgName("MiB")->Arg(1)->Arg(16)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
