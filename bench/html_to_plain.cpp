// HTML to plain text over the real-world HTML mail of tests/data/html.
//
// KV_BENCH_MB sets how much HTML each iteration converts (default 100):
//   KV_BENCH_MB=10 ./build/bench_html_to_plain
// "Mail" converts the samples one message at a time, repeated up to that
// size; "OneText" converts them joined into one text of that size, which also
// shows that time stays linear in the length. Bytes are those of the HTML in
// UTF-8, as it arrives in mail.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "codecs/html_to_plain.h"
#include "platform/codepage.h"

namespace {

namespace fs = std::filesystem;

size_t TargetBytes() {
    const char* mb = std::getenv("KV_BENCH_MB");
    long n = mb ? std::atol(mb) : 100;
    return static_cast<size_t>(n > 0 ? n : 100) << 20;
}

struct Sample {
    kv::wbstring html;
    size_t utf8_bytes = 0;
};

std::u16string Widen(const std::string& utf8) {
    if (utf8.empty()) return {};
    int n = kv::platform::MultiByteToWideChar(65001, 0, utf8.data(), int(utf8.size()), nullptr, 0);
    std::u16string out(size_t(n), u'\0');
    kv::platform::MultiByteToWideChar(65001, 0, utf8.data(), int(utf8.size()), out.data(), n);
    return out;
}

const std::vector<Sample>& Samples() {
    static const std::vector<Sample> samples = [] {
        std::vector<Sample> out;
        const fs::path dir = fs::path(__FILE__).parent_path().parent_path() / "tests" / "data" / "html";
        std::vector<fs::path> paths;
        for (const auto& entry : fs::directory_iterator(dir))
            if (entry.path().extension() == ".html") paths.push_back(entry.path());
        std::sort(paths.begin(), paths.end());
        for (const fs::path& path : paths) {
            std::ifstream in(path, std::ios::binary);
            std::stringstream buffer;
            buffer << in.rdbuf();
            Sample s;
            s.utf8_bytes = buffer.str().size();
            std::u16string wide = Widen(buffer.str());
            s.html.assign(wide.data(), int32_t(wide.size()));
            out.push_back(std::move(s));
        }
        return out;
    }();
    return samples;
}

void Mail(benchmark::State& state, int32_t options) {
    const std::vector<Sample>& samples = Samples();
    if (samples.empty()) {
        state.SkipWithError("no samples under tests/data/html");
        return;
    }
    const size_t target = TargetBytes();
    const kv::wbstring suffix;
    kv::wbstring plain;
    size_t done = 0;
    for (auto _ : state) {
        size_t bytes = 0;
        while (bytes < target) {
            for (const Sample& s : samples) {
                kv::ConvertHtmlToPlain(plain, s.html, 0, options, suffix);
                benchmark::DoNotOptimize(plain.pData);
                bytes += s.utf8_bytes;
            }
        }
        done += bytes;
    }
    state.SetBytesProcessed(int64_t(done));
}

void OneText(benchmark::State& state, int32_t options) {
    const std::vector<Sample>& samples = Samples();
    if (samples.empty()) {
        state.SkipWithError("no samples under tests/data/html");
        return;
    }
    const size_t target = TargetBytes();
    kv::wbstring text;
    size_t bytes = 0;
    while (bytes < target) {
        for (const Sample& s : samples) {
            text.reserve_keep(text.nSize + s.html.nSize + (text.nCapacity > 0 ? text.nCapacity : 0), text.nSize);
            text.append(s.html);
            bytes += s.utf8_bytes;
        }
    }
    // The first "<head" would drop everything before the last sample's head.
    for (int32_t i = 0; i + 5 <= text.nSize; ++i)
        if (text.pData[i] == u'<' && (text.pData[i + 1] == u'h' || text.pData[i + 1] == u'H') &&
            (text.pData[i + 2] == u'e' || text.pData[i + 2] == u'E'))
            text.pData[i + 1] = u'x';
    const kv::wbstring suffix;
    kv::wbstring plain;
    for (auto _ : state) {
        kv::ConvertHtmlToPlain(plain, text, 0, options, suffix);
        benchmark::DoNotOptimize(plain.pData);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes));
}

void BM_HtmlToPlain_Mail(benchmark::State& s) { Mail(s, 1); }
void BM_HtmlToPlain_MailLinksAndImages(benchmark::State& s) { Mail(s, 12); }
void BM_HtmlToPlain_OneText(benchmark::State& s) { OneText(s, 1); }
void BM_HtmlToPlain_OneTextLinksAsMarkup(benchmark::State& s) { OneText(s, 20); }

}  // namespace

BENCHMARK(BM_HtmlToPlain_Mail)->Unit(benchmark::kMillisecond)->MinTime(0.5);
BENCHMARK(BM_HtmlToPlain_MailLinksAndImages)->Unit(benchmark::kMillisecond)->MinTime(0.5);
BENCHMARK(BM_HtmlToPlain_OneText)->Unit(benchmark::kMillisecond)->MinTime(0.5);
BENCHMARK(BM_HtmlToPlain_OneTextLinksAsMarkup)->Unit(benchmark::kMillisecond)->MinTime(0.5);

BENCHMARK_MAIN();
