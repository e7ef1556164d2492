// PlistBenchmark.cpp - property-list read and write, binary and XML, in process.
//
//   qx_plist_bench [--plist=FILE] [Google Benchmark flags]
//
// FILE defaults to $QX_BENCH_PLIST; without either, the generator's default
// list (seed 1, a million objects) is built in memory.
#include "PlistGenerator.h"

#include <QXFoundation/QXPropertyListSerialization.h>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <ctime>
#include <malloc.h>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

namespace {

struct Input {
    qx::Ref<qx::Data> bytes;
    std::uint64_t objects = 0;
};

Input& input() {
    static Input in;
    return in;
}

std::uint64_t objectsInTrailer(const qx::Data& data) {
    if (data.length() < 32) return 0;
    std::uint64_t v = 0;
    for (std::size_t i = data.length() - 24; i < data.length() - 16; ++i) v = (v << 8) | data.bytes()[i];
    return v;
}

bool load(const std::string& path) {
    Input& in = input();
    if (path.empty()) {
        const auto generated = qxbench::generatePlist(1, 1'000'000);
        in.bytes = QXPropertyListSerialization::dataWithPropertyList(generated.root, QXPropertyListBinaryFormat_v1_0);
    } else {
        std::ifstream file(path, std::ios::binary);
        std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        if (!file.eof() && !file) return false;
        in.bytes = std::make_shared<qx::Data>(std::move(bytes));
    }
    in.objects = in.bytes ? objectsInTrailer(*in.bytes) : 0;
    return in.objects > 0;
}

double threadCpuSeconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

void report(benchmark::State& state) {
    const auto iterations = static_cast<double>(state.iterations());
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(input().bytes->length()));
    state.counters["objects/s"] =
        benchmark::Counter(iterations * static_cast<double>(input().objects), benchmark::Counter::kIsRate);
}

// Decoding, including releasing the decoded tree (a reader's caller pays for both).
// Also reports the heap the decoded tree holds per object (glibc's count of
// bytes in use, before the tree is released) and objects per second of
// processor time, the steadier figure on a shared machine.
void BM_BinaryRead(benchmark::State& state) {
    QXPropertyListFormat format = 0;
    double heapPerObject = 0;
    const double cpuStart = threadCpuSeconds();
    for (auto _ : state) {
        const auto before = mallinfo2().uordblks;
        auto plist = QXPropertyListSerialization::propertyListWithData(input().bytes, &format);
        if (!plist) {
            state.SkipWithError("the library cannot read the benchmark file");
            return;
        }
        heapPerObject = static_cast<double>(mallinfo2().uordblks - before) / static_cast<double>(input().objects);
        benchmark::DoNotOptimize(plist.get());
    }
    const double cpu = threadCpuSeconds() - cpuStart;
    report(state);
    state.counters["heap bytes/object"] = heapPerObject;
    state.counters["objects/cpu-s"] =
        cpu > 0 ? static_cast<double>(state.iterations()) * static_cast<double>(input().objects) / cpu : 0;
}

// Writing the decoded value in format, as `qx plist convert` does.
void writeBenchmark(benchmark::State& state, QXPropertyListFormat to) {
    QXPropertyListFormat format = 0;
    const auto plist = QXPropertyListSerialization::propertyListWithData(input().bytes, &format);
    if (!plist) {
        state.SkipWithError("the library cannot read the benchmark file");
        return;
    }
    for (auto _ : state) {
        auto data = QXPropertyListSerialization::dataWithPropertyList(plist, to);
        if (!data) {
            state.SkipWithError("the library cannot write the benchmark value in this format");
            return;
        }
        benchmark::DoNotOptimize(data->bytes());
    }
    report(state);
}

void BM_BinaryWrite(benchmark::State& state) { writeBenchmark(state, QXPropertyListBinaryFormat_v1_0); }

// The XML document of the decoded value, as `qx plist convert --format xml` prints it.
void BM_XMLWrite(benchmark::State& state) { writeBenchmark(state, QXPropertyListXMLFormat_v1_0); }

// Reading that document back, including releasing the value.
void BM_XMLRead(benchmark::State& state) {
    QXPropertyListFormat format = 0;
    const auto plist = QXPropertyListSerialization::propertyListWithData(input().bytes, &format);
    const auto xml = plist ? QXPropertyListSerialization::dataWithPropertyList(plist, QXPropertyListXMLFormat_v1_0)
                           : nullptr;
    if (!xml) {
        state.SkipWithError("the library cannot write the benchmark value as XML");
        return;
    }
    for (auto _ : state) {
        auto value = QXPropertyListSerialization::XMLPropertyListWithData(xml);
        if (!value) {
            state.SkipWithError("the library cannot read its own XML");
            return;
        }
        benchmark::DoNotOptimize(value.get());
    }
    report(state);
}

BENCHMARK(BM_BinaryRead)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_BinaryWrite)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_XMLWrite)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_XMLRead)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

int main(int argc, char** argv) {
    std::string path;
    if (const char* env = std::getenv("QX_BENCH_PLIST")) path = env;
    std::vector<char*> rest;
    for (int i = 0; i < argc; ++i) {
        if (std::strncmp(argv[i], "--plist=", 8) == 0) path = argv[i] + 8;
        else rest.push_back(argv[i]);
    }
    int restCount = static_cast<int>(rest.size());
    benchmark::Initialize(&restCount, rest.data());
    if (benchmark::ReportUnrecognizedArguments(restCount, rest.data())) return 1;
    if (!load(path)) {
        std::cerr << "qx_plist_bench: cannot load " << (path.empty() ? "the generated list" : path) << "\n";
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
