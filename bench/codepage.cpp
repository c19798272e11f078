// Code page conversion against glibc iconv on the same input.
//
// KV_BENCH_MB sets the size of each input (default 8; 100 for the full run):
//   KV_BENCH_MB=100 ./build/bench_codepage
// KV_BENCH_ROAD=sse2 or avx2 holds the conversions below the processor's
// highest road, to see what machines without AVX-512 (or AVX2) get.
// "measure+fill" is how callers use the functions (count, then convert);
// "fill" is one conversion into a buffer known to be large enough.
#include "platform/codepage.h"

#include <benchmark/benchmark.h>
#include <iconv.h>

#include <cstdlib>
#include <random>
#include <string>

namespace {

using kv::platform::MultiByteToWideChar;
using kv::platform::WideCharToMultiByte;

size_t InputBytes() {
    const char* mb = std::getenv("KV_BENCH_MB");
    long n = mb ? std::atol(mb) : 8;
    return static_cast<size_t>(n > 0 ? n : 8) << 20;
}

// Mail-like text: words of ASCII, about 5% of the characters accented Latin
// or CJK, lines of about 70 characters.
std::string MakeUtf8(size_t size) {
    std::mt19937 rng(1234);
    const char* extras[] = {"\xC3\xA9",     "\xC3\xBC",     "\xC3\x9F",     "\xE2\x82\xAC",
                            "\xE6\x97\xA5", "\xE6\x9C\xAC", "\xED\x95\x9C", "\xF0\x9F\x98\x80"};
    std::string s;
    s.reserve(size + 8);
    size_t line = 0;
    while (s.size() < size) {
        unsigned r = rng() % 100;
        if (r < 5) {
            s += extras[rng() % 8];
        } else if (r < 20) {
            s += ' ';
        } else {
            s += static_cast<char>('a' + rng() % 26);
        }
        if (++line == 70) {
            s += "\r\n";
            line = 0;
        }
    }
    while (s.size() > size || (static_cast<unsigned char>(s.back()) & 0x80)) s.pop_back();
    return s;
}

std::string Make1252(size_t size) {
    std::mt19937 rng(99);
    const unsigned char extras[] = {0xE9, 0xFC, 0xDF, 0x80, 0xE0, 0xC7, 0x93, 0x94};
    std::string s(size, ' ');
    for (size_t i = 0; i < size; ++i) {
        unsigned r = rng() % 100;
        if (r < 5) {
            s[i] = static_cast<char>(extras[rng() % 8]);
        } else if (r >= 20) {
            s[i] = static_cast<char>('a' + rng() % 26);
        }
    }
    return s;
}

// Applied before any benchmark runs.
const bool kRoadChosen = [] {
    const char* road = std::getenv("KV_BENCH_ROAD");
    if (!road) return false;
    std::string name(road);
    kv::platform::detail::AllowUtfRoad(name == "sse2"   ? kv::platform::detail::UtfRoad::kSse2
                                       : name == "avx2" ? kv::platform::detail::UtfRoad::kAvx2
                                                        : kv::platform::detail::UtfRoad::kAvx512);
    return true;
}();

const std::string& Utf8Input() {
    static const std::string s = MakeUtf8(InputBytes());
    return s;
}

const std::string& Cp1252Input() {
    static const std::string s = Make1252(InputBytes());
    return s;
}

std::u16string ToWide(int cp, const std::string& in) {
    int n = MultiByteToWideChar(cp, 0, in.data(), static_cast<int>(in.size()), nullptr, 0);
    std::u16string w(n, u'\0');
    MultiByteToWideChar(cp, 0, in.data(), static_cast<int>(in.size()), w.data(), n);
    return w;
}

void Ours_ToWide(benchmark::State& state, int cp, const std::string& in, bool measure) {
    std::u16string out(in.size(), u'\0');
    for (auto _ : state) {
        int n = static_cast<int>(out.size());
        if (measure)
            n = MultiByteToWideChar(cp, 0, in.data(), static_cast<int>(in.size()), nullptr, 0);
        int got = MultiByteToWideChar(cp, 0, in.data(), static_cast<int>(in.size()), out.data(), n);
        benchmark::DoNotOptimize(got);
        if (got == 0) state.SkipWithError("conversion failed");
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * in.size());
}

void Ours_FromWide(benchmark::State& state, int cp, const std::string& bytes, bool measure) {
    const std::u16string in = ToWide(cp, bytes);
    std::string out(bytes.size() + 16, '\0');
    for (auto _ : state) {
        int n = static_cast<int>(out.size());
        if (measure)
            n = WideCharToMultiByte(cp, 0, in.data(), static_cast<int>(in.size()), nullptr, 0);
        int got = WideCharToMultiByte(cp, 0, in.data(), static_cast<int>(in.size()), out.data(), n);
        benchmark::DoNotOptimize(got);
        if (got == 0) state.SkipWithError("conversion failed");
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * bytes.size());
}

void Iconv_ToWide(benchmark::State& state, const char* charset, const std::string& in) {
    iconv_t cd = iconv_open("UTF-16LE", charset);
    std::u16string out(in.size(), u'\0');
    for (auto _ : state) {
        iconv(cd, nullptr, nullptr, nullptr, nullptr);
        char* src = const_cast<char*>(in.data());
        size_t src_left = in.size();
        char* dst = reinterpret_cast<char*>(out.data());
        size_t dst_left = out.size() * 2;
        size_t r = iconv(cd, &src, &src_left, &dst, &dst_left);
        benchmark::DoNotOptimize(dst);
        if (r == static_cast<size_t>(-1)) state.SkipWithError("iconv failed");
    }
    iconv_close(cd);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * in.size());
}

void Iconv_FromWide(benchmark::State& state, int cp, const char* charset,
                    const std::string& bytes) {
    const std::u16string in = ToWide(cp, bytes);
    iconv_t cd = iconv_open(charset, "UTF-16LE");
    std::string out(bytes.size() + 16, '\0');
    for (auto _ : state) {
        iconv(cd, nullptr, nullptr, nullptr, nullptr);
        char* src = reinterpret_cast<char*>(const_cast<char16_t*>(in.data()));
        size_t src_left = in.size() * 2;
        char* dst = out.data();
        size_t dst_left = out.size();
        size_t r = iconv(cd, &src, &src_left, &dst, &dst_left);
        benchmark::DoNotOptimize(dst);
        if (r == static_cast<size_t>(-1)) state.SkipWithError("iconv failed");
    }
    iconv_close(cd);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * bytes.size());
}

// Bytes per second count the byte text in both directions.
void BM_Utf8ToWide_Ours(benchmark::State& s) {
    Ours_ToWide(s, 65001, Utf8Input(), true);
}
void BM_Utf8ToWide_OursFill(benchmark::State& s) {
    Ours_ToWide(s, 65001, Utf8Input(), false);
}
void BM_Utf8ToWide_Iconv(benchmark::State& s) {
    Iconv_ToWide(s, "UTF-8", Utf8Input());
}
void BM_WideToUtf8_Ours(benchmark::State& s) {
    Ours_FromWide(s, 65001, Utf8Input(), true);
}
void BM_WideToUtf8_OursFill(benchmark::State& s) {
    Ours_FromWide(s, 65001, Utf8Input(), false);
}
void BM_WideToUtf8_Iconv(benchmark::State& s) {
    Iconv_FromWide(s, 65001, "UTF-8", Utf8Input());
}
void BM_Cp1252ToWide_Ours(benchmark::State& s) {
    Ours_ToWide(s, 1252, Cp1252Input(), true);
}
void BM_Cp1252ToWide_Iconv(benchmark::State& s) {
    Iconv_ToWide(s, "CP1252", Cp1252Input());
}
void BM_WideToCp1252_Ours(benchmark::State& s) {
    Ours_FromWide(s, 1252, Cp1252Input(), true);
}
void BM_WideToCp1252_Iconv(benchmark::State& s) {
    Iconv_FromWide(s, 1252, "CP1252", Cp1252Input());
}

// Short strings through an iconv page: what the per-thread descriptor cache buys.
void BM_ShortCp932ToWide_Ours(benchmark::State& state) {
    const std::string in =
        "Subject: \x93\xFA\x96\x7B\x8C\xEA\x82\xCC\x83\x65\x83\x4C\x83\x58\x83\x67";
    char16_t out[64];
    for (auto _ : state) {
        int n = MultiByteToWideChar(932, 0, in.data(), static_cast<int>(in.size()), nullptr, 0);
        benchmark::DoNotOptimize(
            MultiByteToWideChar(932, 0, in.data(), static_cast<int>(in.size()), out, n));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * in.size());
}

void BM_ShortCp932ToWide_IconvOpenPerCall(benchmark::State& state) {
    const std::string in =
        "Subject: \x93\xFA\x96\x7B\x8C\xEA\x82\xCC\x83\x65\x83\x4C\x83\x58\x83\x67";
    char16_t out[64];
    for (auto _ : state) {
        iconv_t cd = iconv_open("UTF-16LE", "CP932");
        char* src = const_cast<char*>(in.data());
        size_t src_left = in.size();
        char* dst = reinterpret_cast<char*>(out);
        size_t dst_left = sizeof out;
        benchmark::DoNotOptimize(iconv(cd, &src, &src_left, &dst, &dst_left));
        iconv_close(cd);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * in.size());
}

BENCHMARK(BM_Utf8ToWide_Ours)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Utf8ToWide_OursFill)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Utf8ToWide_Iconv)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WideToUtf8_Ours)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WideToUtf8_OursFill)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WideToUtf8_Iconv)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Cp1252ToWide_Ours)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Cp1252ToWide_Iconv)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WideToCp1252_Ours)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WideToCp1252_Iconv)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ShortCp932ToWide_Ours);
BENCHMARK(BM_ShortCp932ToWide_IconvOpenPerCall);

}  // namespace

BENCHMARK_MAIN();
