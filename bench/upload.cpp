// The multipart form walk: bytes per second on a browser-like post and on
// bodies built to make a naive walk search the whole body once per part.
//
//   ./build/bench_upload            (or ./run bench --benchmark_filter=Form)
//
// Inputs, 16 MiB each (KV_BENCH_MB changes the size):
// - "browser": a few text fields and files of random bytes, in the layout
//   browsers post;
// - "far name": tiny parts without names of their own, all borrowing the one
//   name at the end of the body;
// - "long type": file parts whose Content-Type line runs to the body's end.
// The rate counts body bytes, the parse copying the body once.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <random>
#include <string>

#include "upload/uploader.h"

namespace {

size_t InputBytes() {
    const char* mb = std::getenv("KV_BENCH_MB");
    long n = mb ? std::atol(mb) : 16;
    return static_cast<size_t>(n > 0 ? n : 16) << 20;
}

std::string BrowserPost(size_t size) {
    const std::string boundary = "------WebKitFormBoundaryq8cnYH2ks8sY3mTx";
    std::mt19937 rng(7);
    std::string body;
    for (int i = 0; i < 8; ++i)
        body += boundary + "\r\nContent-Disposition: form-data; name=\"field" + std::to_string(i) +
                "\"\r\n\r\nsome typed words\r\n";
    for (int i = 0; body.size() < size; ++i) {
        body += boundary + "\r\nContent-Disposition: form-data; name=\"file" + std::to_string(i) +
                "\"; filename=\"photo" + std::to_string(i) + ".jpg\"\r\nContent-Type: image/jpeg\r\n\r\n";
        for (size_t n = 0; n < (1u << 20); ++n) body += char(rng());
        body += "\r\n";
    }
    return body + boundary + "--\r\n";
}

std::string FarName(size_t size) {
    std::string body = "--B\r\n";
    while (body.size() < size / 2) body += "--B\r\n";
    return body + "\r\n\r\nname=\"" + std::string(size / 2, 'n');
}

std::string LongType(size_t size) {
    std::string body = "--B\r\n";
    for (int i = 0; body.size() < size; ++i)
        body += "--BXXname=\"" + std::to_string(i) + "\" filename=\"f\" Content-Type: ";
    return body + "\r\n\r\n--B";
}

void Walk(benchmark::State& state, std::string (*make)(size_t)) {
    std::string body = make(InputBytes());
    kv::bstring view;
    view.borrow(body.data(), int32_t(body.size()));
    kv::CUploader* up = kv::CUploader::New();
    for (auto _ : state) benchmark::DoNotOptimize(up->ParseBody(view));
    up->Release();
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(body.size()));
}

void BM_FormBrowser(benchmark::State& s) { Walk(s, BrowserPost); }
void BM_FormFarName(benchmark::State& s) { Walk(s, FarName); }
void BM_FormLongType(benchmark::State& s) { Walk(s, LongType); }

}  // namespace

BENCHMARK(BM_FormBrowser)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FormFarName)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FormLongType)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
