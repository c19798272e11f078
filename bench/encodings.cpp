// Transfer encodings side by side with OpenSSL and GMime 3.
//
//   ./build/bench_encodings            (or ./run bench --benchmark_filter=Encode)
//
// Inputs, 64 MiB each (KV_BENCH_MB changes the size):
// - random binary data for base64, encoded once by each side for its
//   decoder: Korvane's text has CRLF after every 76 characters (as in mail);
//   EVP_DecodeBlock accepts no line breaks, so it and "Korvane/unwrapped"
//   get the same text without them; GMime gets its own 76-column text;
// - Latin-1 mail text for quoted-printable: lines of about 70 characters
//   with CRLF, about 6% of the characters 8-bit; both decoders read the same
//   encoded text.
// Every rate counts the unencoded bytes (the 64 MiB), in both directions,
// so that the decoders of wrapped and unwrapped text compare fairly.
// Destination buffers are kept across iterations on every side. Each
// benchmark runs three times, interleaved at random with the others, and the
// median counts. After the runs a table gives MB/s (10^6 bytes per second of
// CPU time) and the ratios that the targets name, with memcpy of the same
// 64 MiB as the limit.
#include <benchmark/benchmark.h>

#include "interleaved.h"
#include <gmime/gmime.h>
#include <openssl/evp.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "codecs/encoding.h"

namespace {

size_t InputBytes() {
    const char* mb = std::getenv("KV_BENCH_MB");
    long n = mb ? std::atol(mb) : 64;
    return static_cast<size_t>(n > 0 ? n : 64) << 20;
}

std::string RandomBinary(size_t size) {
    std::mt19937_64 rng(42);
    std::string s(size, '\0');
    for (size_t i = 0; i + 8 <= size; i += 8) {
        uint64_t v = rng();
        std::memcpy(&s[i], &v, 8);
    }
    for (size_t i = size & ~size_t(7); i < size; ++i) s[i] = char(rng());
    return s;
}

// Words of ASCII letters with some accented Latin-1 letters, now and then
// a punctuation mark that quoted-printable escapes.
std::string MailText(size_t size) {
    std::mt19937 rng(1234);
    const unsigned char accents[] = {0xE9, 0xE8, 0xE0, 0xFC, 0xF6, 0xE4, 0xDF, 0xE7, 0xEA, 0xF4};
    std::string s;
    s.reserve(size + 128);
    size_t line = 0;
    while (s.size() < size) {
        unsigned r = rng() % 1000;
        char c;
        if (r < 60) {
            c = char(accents[rng() % sizeof(accents)]);
        } else if (r < 210) {
            c = ' ';
        } else if (r < 215) {
            c = "?=_!"[rng() % 4];
        } else if (r < 240) {
            c = ".,;:"[rng() % 4];
        } else {
            c = char('a' + rng() % 26);
        }
        s += c;
        if (++line >= 66 && (c == ' ' || line >= 74)) {
            s += "\r\n";
            line = 0;
        }
    }
    s.resize(size);
    return s;
}

struct Inputs {
    std::string binary;       // base64 source
    std::string b64_wrapped;  // Korvane's base64 of it: CRLF every 76 characters
    std::string b64_flat;     // the same without line breaks
    std::string b64_gmime;    // GMime's base64 of it
    std::string text;         // quoted-printable source
    std::string qp;           // its quoted-printable form
};
Inputs* g_in = nullptr;

std::string ToString(const kv::bstring& b) {
    return std::string(b.pData, size_t(b.nSize));
}

std::string GMimeRun(GMimeContentEncoding enc, bool encode, const std::string& in) {
    GMimeEncoding state;
    if (encode) {
        g_mime_encoding_init_encode(&state, enc);
    } else {
        g_mime_encoding_init_decode(&state, enc);
    }
    std::string out(g_mime_encoding_outlen(&state, in.size()), '\0');
    size_t n = g_mime_encoding_flush(&state, in.data(), in.size(), out.data());
    out.resize(n);
    return out;
}

void Require(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "bench_encodings: %s\n", what);
        std::exit(1);
    }
}

void Prepare() {
    g_in = new Inputs;
    size_t size = InputBytes();
    g_in->binary = RandomBinary(size);
    kv::bstring b;
    kv::EncodeBase64(b, g_in->binary.data(), int32_t(size), false, true);
    g_in->b64_wrapped = ToString(b);
    kv::EncodeBase64(b, g_in->binary.data(), int32_t(size), false, false);
    g_in->b64_flat = ToString(b);
    g_in->b64_gmime = GMimeRun(GMIME_CONTENT_ENCODING_BASE64, true, g_in->binary);
    g_in->text = MailText(size);
    kv::EncodeQuotedPrintable(b, g_in->text.data(), int32_t(size), false);
    g_in->qp = ToString(b);

    // Every side must produce the right bytes before its speed means anything.
    std::string flat_evp(g_in->b64_flat.size(), '\0');
    EVP_EncodeBlock(reinterpret_cast<unsigned char*>(flat_evp.data()),
                    reinterpret_cast<const unsigned char*>(g_in->binary.data()), int(size));
    Require(flat_evp.compare(0, g_in->b64_flat.size(), g_in->b64_flat) == 0,
            "EVP_EncodeBlock and Korvane differ");
    kv::bstring src(g_in->b64_wrapped.data(), int32_t(g_in->b64_wrapped.size())), out;
    kv::DecodeBase64(out, src);
    Require(ToString(out) == g_in->binary, "Korvane base64 round trip failed");
    Require(GMimeRun(GMIME_CONTENT_ENCODING_BASE64, false, g_in->b64_gmime) == g_in->binary,
            "GMime base64 round trip failed");
    kv::bstring qsrc(g_in->qp.data(), int32_t(g_in->qp.size()));
    kv::DecodeQuotedPrintable(out, qsrc, false);
    Require(ToString(out) == g_in->text, "Korvane quoted-printable round trip failed");
    Require(GMimeRun(GMIME_CONTENT_ENCODING_QUOTEDPRINTABLE, false, g_in->qp) == g_in->text,
            "GMime does not decode Korvane's quoted-printable to the text");
}

void SetRate(benchmark::State& state) {
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(g_in->binary.size()));
}

// ---- the limit ----

void BM_Memcpy(benchmark::State& state) {
    std::string dst(g_in->binary.size(), '\0');
    for (auto _ : state) {
        std::memcpy(dst.data(), g_in->binary.data(), g_in->binary.size());
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    SetRate(state);
}

// ---- base64 encode ----

void BM_Base64Encode_Korvane(benchmark::State& state) {
    kv::bstring out;
    for (auto _ : state) {
        kv::EncodeBase64(out, g_in->binary.data(), int32_t(g_in->binary.size()), false, true);
        benchmark::DoNotOptimize(out.pData);
    }
    SetRate(state);
}

void BM_Base64Encode_EVP_EncodeBlock(benchmark::State& state) {
    std::string out(g_in->b64_flat.size() + 1, '\0');
    for (auto _ : state) {
        int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                reinterpret_cast<const unsigned char*>(g_in->binary.data()),
                                int(g_in->binary.size()));
        benchmark::DoNotOptimize(n);
    }
    SetRate(state);
}

void BM_Base64Encode_GMime(benchmark::State& state) {
    GMimeEncoding enc;
    g_mime_encoding_init_encode(&enc, GMIME_CONTENT_ENCODING_BASE64);
    std::string out(g_mime_encoding_outlen(&enc, g_in->binary.size()), '\0');
    for (auto _ : state) {
        g_mime_encoding_init_encode(&enc, GMIME_CONTENT_ENCODING_BASE64);
        size_t n =
            g_mime_encoding_flush(&enc, g_in->binary.data(), g_in->binary.size(), out.data());
        benchmark::DoNotOptimize(n);
    }
    SetRate(state);
}

// ---- base64 decode ----

void DecodeKorvane(benchmark::State& state, const std::string& text) {
    kv::bstring src(text.data(), int32_t(text.size())), out;
    for (auto _ : state) {
        kv::DecodeBase64(out, src);
        benchmark::DoNotOptimize(out.pData);
    }
    SetRate(state);
}
void BM_Base64Decode_Korvane(benchmark::State& state) {
    DecodeKorvane(state, g_in->b64_wrapped);
}
void BM_Base64Decode_Korvane_unwrapped(benchmark::State& state) {
    DecodeKorvane(state, g_in->b64_flat);
}

void BM_Base64Decode_EVP_DecodeBlock(benchmark::State& state) {
    std::string out(g_in->b64_flat.size(), '\0');
    for (auto _ : state) {
        int n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                reinterpret_cast<const unsigned char*>(g_in->b64_flat.data()),
                                int(g_in->b64_flat.size()));
        benchmark::DoNotOptimize(n);
    }
    SetRate(state);
}

void BM_Base64Decode_GMime(benchmark::State& state) {
    GMimeEncoding dec;
    g_mime_encoding_init_decode(&dec, GMIME_CONTENT_ENCODING_BASE64);
    std::string out(g_mime_encoding_outlen(&dec, g_in->b64_gmime.size()), '\0');
    for (auto _ : state) {
        g_mime_encoding_init_decode(&dec, GMIME_CONTENT_ENCODING_BASE64);
        size_t n =
            g_mime_encoding_step(&dec, g_in->b64_gmime.data(), g_in->b64_gmime.size(), out.data());
        benchmark::DoNotOptimize(n);
    }
    SetRate(state);
}

// ---- quoted-printable ----

void BM_QuotedPrintableEncode_Korvane(benchmark::State& state) {
    kv::bstring out;
    for (auto _ : state) {
        kv::EncodeQuotedPrintable(out, g_in->text.data(), int32_t(g_in->text.size()), false);
        benchmark::DoNotOptimize(out.pData);
    }
    SetRate(state);
}

void BM_QuotedPrintableEncode_GMime(benchmark::State& state) {
    GMimeEncoding enc;
    g_mime_encoding_init_encode(&enc, GMIME_CONTENT_ENCODING_QUOTEDPRINTABLE);
    std::string out(g_mime_encoding_outlen(&enc, g_in->text.size()), '\0');
    for (auto _ : state) {
        g_mime_encoding_init_encode(&enc, GMIME_CONTENT_ENCODING_QUOTEDPRINTABLE);
        size_t n = g_mime_encoding_flush(&enc, g_in->text.data(), g_in->text.size(), out.data());
        benchmark::DoNotOptimize(n);
    }
    SetRate(state);
}

void BM_QuotedPrintableDecode_Korvane(benchmark::State& state) {
    kv::bstring src(g_in->qp.data(), int32_t(g_in->qp.size())), out;
    for (auto _ : state) {
        kv::DecodeQuotedPrintable(out, src, false);
        benchmark::DoNotOptimize(out.pData);
    }
    SetRate(state);
}

void BM_QuotedPrintableDecode_GMime(benchmark::State& state) {
    GMimeEncoding dec;
    g_mime_encoding_init_decode(&dec, GMIME_CONTENT_ENCODING_QUOTEDPRINTABLE);
    std::string out(g_mime_encoding_outlen(&dec, g_in->qp.size()), '\0');
    for (auto _ : state) {
        g_mime_encoding_init_decode(&dec, GMIME_CONTENT_ENCODING_QUOTEDPRINTABLE);
        size_t n = g_mime_encoding_step(&dec, g_in->qp.data(), g_in->qp.size(), out.data());
        benchmark::DoNotOptimize(n);
    }
    SetRate(state);
}

// Collects the rates while printing as usual, then prints the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    using ConsoleReporter::ConsoleReporter;
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred) continue;
            // A single run, or the median of the repetitions.
            bool single = run.run_type == Run::RT_Iteration && run.repetitions <= 1;
            bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (!single && !median) continue;
            auto it = run.counters.find("bytes_per_second");
            if (it != run.counters.end()) rates_[run.run_name.str()] = it->second.value;
        }
    }
    void Summary() const {
        auto rate = [&](const char* name) -> double {
            auto it = rates_.find(name);
            return it == rates_.end() ? 0 : it->second;
        };
        std::printf("\nMB/s of unencoded data (10^6 bytes/s), %zu MiB inputs:\n",
                    g_in->binary.size() >> 20);
        for (const auto& [name, value] : rates_)
            std::printf("  %-44s %9.0f MB/s  %5.1f%% of memcpy\n", name.c_str(), value / 1e6,
                        rate("BM_Memcpy") > 0 ? 100 * value / rate("BM_Memcpy") : 0);
        struct Target {
            const char* what;
            const char* ours;
            const char* peer;
            double want;
        } targets[] = {
            {"base64 decode vs EVP_DecodeBlock (wrapped)", "BM_Base64Decode_Korvane",
             "BM_Base64Decode_EVP_DecodeBlock", 1.5},
            {"base64 decode vs EVP_DecodeBlock (same text)", "BM_Base64Decode_Korvane_unwrapped",
             "BM_Base64Decode_EVP_DecodeBlock", 1.5},
            {"base64 encode vs EVP_EncodeBlock", "BM_Base64Encode_Korvane",
             "BM_Base64Encode_EVP_EncodeBlock", 1.0},
            {"base64 encode vs GMime", "BM_Base64Encode_Korvane", "BM_Base64Encode_GMime", 0},
            {"base64 decode vs GMime", "BM_Base64Decode_Korvane", "BM_Base64Decode_GMime", 0},
            {"quoted-printable encode vs GMime", "BM_QuotedPrintableEncode_Korvane",
             "BM_QuotedPrintableEncode_GMime", 2.0},
            {"quoted-printable decode vs GMime", "BM_QuotedPrintableDecode_Korvane",
             "BM_QuotedPrintableDecode_GMime", 1.0},
        };
        std::printf("\nRatios (Korvane / peer):\n");
        for (const Target& t : targets) {
            double ours = rate(t.ours), peer = rate(t.peer);
            if (ours <= 0 || peer <= 0) continue;
            double ratio = ours / peer;
            if (t.want > 0) {
                std::printf("  %-46s %5.2fx  target >= %.1fx  %s\n", t.what, ratio, t.want,
                            ratio >= t.want ? "met" : "MISSED");
            } else {
                std::printf("  %-46s %5.2fx\n", t.what, ratio);
            }
        }
    }

private:
    std::map<std::string, double> rates_;
};

}  // namespace

BENCHMARK(BM_Memcpy)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Base64Encode_Korvane)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Base64Encode_EVP_EncodeBlock)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Base64Encode_GMime)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Base64Decode_Korvane)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Base64Decode_Korvane_unwrapped)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Base64Decode_EVP_DecodeBlock)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Base64Decode_GMime)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_QuotedPrintableEncode_Korvane)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_QuotedPrintableEncode_GMime)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_QuotedPrintableDecode_Korvane)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_QuotedPrintableDecode_GMime)->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
    if (!kv::bench::InitializeInterleaved(argc, argv)) return 1;
    Prepare();
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.Summary();
    benchmark::Shutdown();
    return 0;
}
