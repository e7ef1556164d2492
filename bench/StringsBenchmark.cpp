// StringsBenchmark.cpp - throughput of the hexadecimal dump, its reader, HTML
// encoding and text decoding on 1 MiB inputs.
#include <QXFoundation/QXHexFormatter.h>
#include <QXFoundation/QXStringAdditions.h>

#include <qx/StringEncoding.h>

#include <benchmark/benchmark.h>

#include <random>
#include <string>

namespace {

constexpr std::size_t kSize = 1 << 20;

std::string randomBytes() {
    std::mt19937 random(1);
    std::string s(kSize, '\0');
    for (char& c : s) c = static_cast<char>(random());
    return s;
}

// Mostly ASCII prose with some accented letters and markup characters.
std::string prose() {
    const std::string sentence = "The caf\u00e9 <b>&</b> \"r\u00e9sum\u00e9\" costs 5 \u20ac @ noon; ";
    std::string s;
    while (s.size() < kSize) s += sentence;
    return s;
}

void HexDumpLines(benchmark::State& state) {
    const auto formatter = QXHexFormatter::formatter();
    const std::string bytes = randomBytes();
    for (auto _ : state) {
        // As qx hexdump does: one call per 16-byte line, with the text column.
        for (std::size_t i = 0; i < bytes.size(); i += 16) {
            qx::Ref<qx::String> text;
            benchmark::DoNotOptimize(formatter->hexStringForData(qx::Data::withBytes(bytes.data() + i, 16), &text));
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kSize));
}

void HexDumpRead(benchmark::State& state) {
    const auto formatter = QXHexFormatter::formatter();
    const auto dump = formatter->hexStringForData(qx::Data::withString(randomBytes()));
    for (auto _ : state) benchmark::DoNotOptimize(formatter->dataFromHexString(*dump));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kSize));
}

void HTMLEncoding(benchmark::State& state) {
    const qx::String text(prose());
    for (auto _ : state) benchmark::DoNotOptimize(QXStringAdditions::stringByEncodingForHTML(text));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.utf8().size()));
}

void MacOSRomanDecode(benchmark::State& state) {
    const std::string bytes = randomBytes();
    for (auto _ : state)
        benchmark::DoNotOptimize(qx::stringWithBytes(bytes.data(), bytes.size(), qx::NSMacOSRomanStringEncoding));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kSize));
}

} // namespace

BENCHMARK(HexDumpLines);
BENCHMARK(HexDumpRead);
BENCHMARK(HTMLEncoding);
BENCHMARK(MacOSRomanDecode);
BENCHMARK_MAIN();
