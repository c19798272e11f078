// Parsing composed messages (a 100 KB text body and a 1 MB attachment) and
// the real sample messages of the tests, beside GMime 3 parsing the same
// bytes in the same run. Both decode every part: GMime's content is written
// out through its decoding filters, ours is decoded by the parse itself.
#include <benchmark/benchmark.h>
#include <gmime/gmime.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "automation/bstr.h"
#include "message/message.h"
#include "shell/classes.h"

namespace {

std::string Composed() {
    static const std::string raw = [] {
        kv::shell::RegisterCatalogue();
        std::mt19937 rng(5);
        std::string text;
        while (text.size() < 100 * 1024) {
            for (int i = 0; i < 70; ++i) text += (rng() % 7 == 0) ? ' ' : char('a' + rng() % 26);
            text += "\r\n";
        }
        std::string data(1024 * 1024, '\0');
        for (char& c : data) c = char(rng());
        kv::CMessage* msg = kv::CMessage::New();
        msg->put_Subject(kv::automation::Bstr::FromUtf8("Parse me").get());
        msg->put_BodyText(kv::automation::Bstr::FromUtf8(text).get());
        VARIANT v;
        VariantInit(&v);
        v.vt = VT_ARRAY | VT_UI1;
        v.parray = SafeArrayCreateVector(VT_UI1, 0, uint32_t(data.size()));
        void* p = nullptr;
        SafeArrayAccessData(v.parray, &p);
        std::memcpy(p, data.data(), data.size());
        SafeArrayUnaccessData(v.parray);
        VARIANT_BOOL ok;
        kv::automation::Bstr empty = kv::automation::Bstr::FromUtf8("");
        msg->AddMemoryAttachment(v, kv::automation::Bstr::FromUtf8("data.bin").get(), empty.get(),
                                 empty.get(), &ok);
        VariantClear(&v);
        msg->EnsureRawBody();
        std::string out(msg->m_bsRawBody.pData, size_t(msg->m_bsRawBody.nSize));
        msg->Release();
        return out;
    }();
    return raw;
}

std::vector<std::string> Samples() {
    std::vector<std::string> all;
    std::string dir = std::string(KV_SOURCE_DIR) + "/tests/data/messages/mimekit";
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(dir, ec)) {
        std::ifstream in(entry.path(), std::ios::binary);
        std::stringstream ss;
        ss << in.rdbuf();
        std::string text = ss.str(), crlf;
        for (size_t i = 0; i < text.size(); ++i) {  // the walk expects CRLF line ends
            if (text[i] == '\n' && (i == 0 || text[i - 1] != '\r')) crlf += '\r';
            crlf += text[i];
        }
        if (!crlf.empty()) all.push_back(crlf);
    }
    return all;
}

void ParseOurs(benchmark::State& state, const std::vector<std::string>& inputs, int repeat) {
    kv::shell::RegisterCatalogue();
    int64_t bytes = 0;
    for (auto _ : state) {
        for (int r = 0; r < repeat; ++r) {
            for (const std::string& raw : inputs) {
                kv::CMessage* msg = kv::CMessage::New();
                msg->m_bsRawBody.assign(raw.data(), int32_t(raw.size()));
                msg->ImportRawMessage(false, 0);
                benchmark::DoNotOptimize(msg->m_pAttachments->CountInternal());
                msg->Release();
                bytes += int64_t(raw.size());
            }
        }
    }
    state.SetBytesProcessed(bytes);
}

void DecodeAll(GMimeObject* parent, GMimeObject* part, gpointer sink) {
    if (!GMIME_IS_PART(part)) return;
    GMimeDataWrapper* content = g_mime_part_get_content(GMIME_PART(part));
    if (content) g_mime_data_wrapper_write_to_stream(content, GMIME_STREAM(sink));
}

void ParseGMime(benchmark::State& state, const std::vector<std::string>& inputs, int repeat) {
    g_mime_init();
    int64_t bytes = 0;
    for (auto _ : state) {
        for (int r = 0; r < repeat; ++r) {
            for (const std::string& raw : inputs) {
                GMimeStream* stream = g_mime_stream_mem_new_with_buffer(raw.data(), raw.size());
                GMimeParser* parser = g_mime_parser_new_with_stream(stream);
                GMimeMessage* message = g_mime_parser_construct_message(parser, nullptr);
                if (message) {
                    GMimeStream* sink = g_mime_stream_null_new();
                    g_mime_message_foreach(message, DecodeAll, sink);
                    g_object_unref(sink);
                    g_object_unref(message);
                }
                g_object_unref(parser);
                g_object_unref(stream);
                bytes += int64_t(raw.size());
            }
        }
    }
    state.SetBytesProcessed(bytes);
}

void BM_ParseComposed_Korvane(benchmark::State& s) { ParseOurs(s, {Composed()}, 200); }
void BM_ParseComposed_GMime(benchmark::State& s) { ParseGMime(s, {Composed()}, 200); }
void BM_ParseSamples_Korvane(benchmark::State& s) { ParseOurs(s, Samples(), 200); }
void BM_ParseSamples_GMime(benchmark::State& s) { ParseGMime(s, Samples(), 200); }
BENCHMARK(BM_ParseComposed_Korvane)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_ParseComposed_GMime)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_ParseSamples_Korvane)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_ParseSamples_GMime)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
