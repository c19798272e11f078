// Parsing beside GMime 3 and Python's email package in the same run.
//
// Composed messages (a 100 KB text body and a 1 MB attachment) and the real
// sample messages of the tests, beside GMime; and the generated corpus (see
// bench/gen_corpus.py; ./run bench makes it and names it in
// KV_PARSE_CORPUS): about 100 MB in 2000 messages and one 50 MB message,
// beside GMime and Python. Every parser decodes every leaf: ours in the parse
// itself (bodies to UTF-16, attachments to bytes), a forwarded message by
// parsing its attachment in turn; GMime through its decoding filters into a
// memory stream, entering message/rfc822 parts; Python with get_content or
// get_payload(decode=True) over walk(). Peak memory while parsing the 50 MB
// message is measured in a fresh process per parser.
#include <benchmark/benchmark.h>
#include <gmime/gmime.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "automation/bstr.h"
#include "host.h"
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
        bench::PutText(msg, "Subject", "Parse me");
        bench::PutText(msg, "BodyText", text);
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

std::string ReadFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// The generated corpus, or empty when KV_PARSE_CORPUS names none.
std::string CorpusDir() {
    const char* dir = std::getenv("KV_PARSE_CORPUS");
    if (!dir || !std::filesystem::exists(std::string(dir) + "/manifest.txt")) return {};
    return dir;
}

const std::vector<std::string>& CorpusMessages() {
    static const std::vector<std::string> all = [] {
        std::vector<std::string> out;
        std::string dir = CorpusDir();
        if (dir.empty()) return out;
        std::vector<std::filesystem::path> names;
        for (const auto& entry : std::filesystem::directory_iterator(dir + "/msgs"))
            if (entry.path().extension() == ".eml") names.push_back(entry.path());
        std::sort(names.begin(), names.end());
        for (const auto& name : names) out.push_back(ReadFile(name));
        return out;
    }();
    return all;
}

const std::vector<std::string>& CorpusBig() {
    static const std::vector<std::string> big = [] {
        std::vector<std::string> out;
        std::string dir = CorpusDir();
        if (!dir.empty()) out.push_back(ReadFile(dir + "/big.eml"));
        return out;
    }();
    return big;
}

// ---- one message, every leaf decoded ----

// Our parse decodes as it goes; what it made is read here so that nothing
// can be skipped. A forwarded message is an attachment holding its text,
// parsed in turn as a script would.
int64_t DecodeOurs(const char* data, int32_t size, int depth = 0) {
    kv::CMessage* msg = kv::CMessage::New();
    msg->m_bsRawBody.assign(data, size);
    msg->ImportRawMessage(false, 0);
    int64_t n = int64_t(msg->m_wsBodyText.nSize) + msg->m_wsAltBodyText.nSize;
    for (kv::CAttachment* a : msg->m_pAttachments->m_coll) {
        const kv::bstring& content = a->m_bsContent;
        n += content.nSize;
        if (content.nSize > 0) benchmark::DoNotOptimize(content.pData[content.nSize - 1]);
        if (a->m_bMessage && depth < 8) n += DecodeOurs(content.pData, content.nSize, depth + 1);
    }
    msg->Release();
    return n;
}

struct GMimeSink {
    bool to_utf8 = false;
    int64_t bytes = 0;
};

void DecodeLeaf(GMimeObject* parent, GMimeObject* part, gpointer data);

void DecodeMessage(GMimeMessage* message, GMimeSink* sink) {
    GMimeObject* top = g_mime_message_get_mime_part(message);
    if (!top) return;
    DecodeLeaf(GMIME_OBJECT(message), top, sink);
    if (GMIME_IS_MULTIPART(top)) g_mime_multipart_foreach(GMIME_MULTIPART(top), DecodeLeaf, sink);
}

void DecodeLeaf(GMimeObject*, GMimeObject* part, gpointer data) {
    auto* sink = static_cast<GMimeSink*>(data);
    if (GMIME_IS_MESSAGE_PART(part)) {
        GMimeMessage* inner = g_mime_message_part_get_message(GMIME_MESSAGE_PART(part));
        if (inner) DecodeMessage(inner, sink);
        return;
    }
    if (!GMIME_IS_PART(part)) return;
    GMimeDataWrapper* content = g_mime_part_get_content(GMIME_PART(part));
    if (!content) return;
    GMimeStream* mem = g_mime_stream_mem_new();
    const char* charset = nullptr;
    if (sink->to_utf8 && GMIME_IS_TEXT_PART(part))
        charset = g_mime_text_part_get_charset(GMIME_TEXT_PART(part));
    if (charset && g_ascii_strcasecmp(charset, "utf-8") != 0) {
        GMimeStream* filtered = g_mime_stream_filter_new(mem);
        GMimeFilter* convert = g_mime_filter_charset_new(charset, "utf-8");
        if (convert) {
            g_mime_stream_filter_add(GMIME_STREAM_FILTER(filtered), convert);
            g_object_unref(convert);
        }
        g_mime_data_wrapper_write_to_stream(content, filtered);
        g_mime_stream_flush(filtered);
        g_object_unref(filtered);
    } else {
        g_mime_data_wrapper_write_to_stream(content, mem);
    }
    sink->bytes += int64_t(g_mime_stream_mem_get_byte_array(GMIME_STREAM_MEM(mem))->len);
    g_object_unref(mem);
}

int64_t DecodeGMime(GMimeStream* stream, bool to_utf8) {
    GMimeParser* parser = g_mime_parser_new_with_stream(stream);
    GMimeMessage* message = g_mime_parser_construct_message(parser, nullptr);
    GMimeSink sink;
    sink.to_utf8 = to_utf8;
    if (message) {
        DecodeMessage(message, &sink);
        g_object_unref(message);
    }
    g_object_unref(parser);
    return sink.bytes;
}

int64_t DecodeGMime(const std::string& raw, bool to_utf8) {
    GMimeStream* stream = g_mime_stream_mem_new_with_buffer(raw.data(), raw.size());
    int64_t n = DecodeGMime(stream, to_utf8);
    g_object_unref(stream);
    return n;
}

// ---- rates ----

// MiB/s of each corpus benchmark, for the closing summary.
std::map<std::string, double>& Rates() {
    static std::map<std::string, double> rates;
    return rates;
}
std::map<std::string, double>& Peaks() {
    static std::map<std::string, double> peaks;
    return peaks;
}

// CPU seconds of this process (user and system: page faults count).
double CpuSeconds() {
    timespec t;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

// Runs over inputs `passes` times and reports the pass that took the least
// CPU time: the machine is shared, and wall time would charge us for the
// others' work. A pass of 100 MB is long enough to time on its own.
template <class F>
void TimePasses(benchmark::State& state, const std::vector<std::string>& inputs, int passes,
                const char* record, F&& decode) {
    if (inputs.empty()) {
        state.SkipWithError("no corpus: run bench/gen_corpus.py and set KV_PARSE_CORPUS");
        return;
    }
    int64_t bytes = 0, decoded = 0;
    for (const std::string& raw : inputs) bytes += int64_t(raw.size());
    for (auto _ : state) {
        double best = 1e30;
        for (int pass = 0; pass < passes; ++pass) {
            double start = CpuSeconds();
            decoded = 0;
            for (const std::string& raw : inputs) decoded += decode(raw);
            best = std::min(best, CpuSeconds() - start);
        }
        state.SetIterationTime(best);
        if (record) Rates()[record] = double(bytes) / (1 << 20) / best;
    }
    state.SetBytesProcessed(bytes);
    state.counters["decoded_MB"] = double(decoded) / (1 << 20);
}

void ParseOurs(benchmark::State& state, const std::vector<std::string>& inputs, int passes,
               const char* record = nullptr) {
    kv::shell::RegisterCatalogue();
    TimePasses(state, inputs, passes, record,
               [](const std::string& raw) { return DecodeOurs(raw.data(), int32_t(raw.size())); });
}

void ParseGMime(benchmark::State& state, const std::vector<std::string>& inputs, int passes,
                const char* record = nullptr, bool to_utf8 = false) {
    g_mime_init();
    TimePasses(state, inputs, passes, record,
               [to_utf8](const std::string& raw) { return DecodeGMime(raw, to_utf8); });
}

// path in single quotes for the shell (our own paths: no quotes inside).
std::string Quoted(const std::string& path) {
    std::string out;
    out.reserve(path.size() + 2);
    out.append(1, '\'').append(path).append(1, '\'');
    return out;
}

std::string SelfPath() {
    char buf[4096];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    return n > 0 ? std::string(buf, size_t(n)) : std::string();
}

// The first line of a command's output, or empty when it failed.
std::string FirstLine(const std::string& command) {
    std::string line;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return line;
    char buf[512];
    if (std::fgets(buf, sizeof buf, pipe)) line = buf;
    if (pclose(pipe) != 0) line.clear();
    return line;
}

const char* kPython = "/usr/bin/python3";

// Python runs in its own process; it reads the files first and times only
// the parse and decode, in CPU time, as ours and GMime's passes do.
void ParsePython(benchmark::State& state, const std::string& paths, int passes,
                 const char* record) {
    if (CorpusDir().empty()) {
        state.SkipWithError("no corpus: run bench/gen_corpus.py and set KV_PARSE_CORPUS");
        return;
    }
    for (auto _ : state) {
        std::string line =
            FirstLine(std::string(kPython) + " " KV_SOURCE_DIR "/bench/parse_py.py rate " +
                      std::to_string(passes) + " " + paths);
        double bytes = 0, seconds = 0;
        if (std::sscanf(line.c_str(), "%lf %lf", &bytes, &seconds) != 2 || seconds <= 0) {
            state.SkipWithError("the Python peer failed");
            return;
        }
        state.SetIterationTime(seconds);
        state.SetBytesProcessed(int64_t(bytes));
        Rates()[record] = bytes / (1 << 20) / seconds;
    }
}

// ---- peak memory ----

int64_t StatusKb(const char* field) {
    std::ifstream in("/proc/self/status");
    std::string line;
    size_t n = std::strlen(field);
    while (std::getline(in, line))
        if (line.compare(0, n, field) == 0 && line.size() > n && line[n] == ':')
            return std::atoll(line.c_str() + n + 1);
    return 0;
}

// In a fresh process (bench_parse --peak WHO FILE): resident memory before
// the message is read, the high-water mark once it is parsed and every leaf
// decoded, and the file's size. Ours reads the file into the message, which
// keeps it; GMime gets it in one memory stream.
int PeakChild(const std::string& who, const std::string& path) {
    int64_t size = int64_t(std::filesystem::file_size(path));
    int64_t before = 0, decoded = 0;
    if (who == "korvane") {
        kv::shell::RegisterCatalogue();
        before = StatusKb("VmRSS");
        kv::CMessage* msg = kv::CMessage::New();
        VARIANT_BOOL ok = VARIANT_FALSE;
        msg->ImportFromFile(kv::automation::Bstr::FromUtf8(path).get(), &ok);
        if (!ok) return 1;
        decoded = int64_t(msg->m_wsBodyText.nSize) + msg->m_wsAltBodyText.nSize;
        for (kv::CAttachment* a : msg->m_pAttachments->m_coll) decoded += a->m_bsContent.nSize;
        std::printf("%lld %lld %lld\n", (long long)before, (long long)StatusKb("VmHWM"),
                    (long long)size);
        msg->Release();
    } else if (who == "gmime") {
        g_mime_init();
        before = StatusKb("VmRSS");
        GByteArray* array = g_byte_array_sized_new(guint(size));
        g_byte_array_set_size(array, guint(size));
        FILE* f = std::fopen(path.c_str(), "rb");
        if (!f || std::fread(array->data, 1, size_t(size), f) != size_t(size)) return 1;
        std::fclose(f);
        GMimeStream* stream = g_mime_stream_mem_new_with_byte_array(array);
        decoded = DecodeGMime(stream, false);
        std::printf("%lld %lld %lld\n", (long long)before, (long long)StatusKb("VmHWM"),
                    (long long)size);
        g_object_unref(stream);
    } else {
        return 2;
    }
    return decoded > 0 ? 0 : 1;
}

void Peak(benchmark::State& state, const char* who) {
    std::string dir = CorpusDir();
    if (dir.empty()) {
        state.SkipWithError("no corpus: run bench/gen_corpus.py and set KV_PARSE_CORPUS");
        return;
    }
    std::string big = dir + "/big.eml";
    for (auto _ : state) {
        std::string command =
            std::string(who) == "python"
                ? std::string(kPython) + " " KV_SOURCE_DIR "/bench/parse_py.py peak "
                : Quoted(SelfPath()) + " --peak " + who + " ";
        command += Quoted(big);
        auto start = std::chrono::steady_clock::now();
        std::string line = FirstLine(command);
        std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        double before = 0, hwm = 0, size = 0;
        if (std::sscanf(line.c_str(), "%lf %lf %lf", &before, &hwm, &size) != 3 || size <= 0) {
            state.SkipWithError("the measuring process failed");
            return;
        }
        state.SetIterationTime(took.count());
        double peak = (hwm - before) * 1024;
        state.counters["size_MB"] = size / (1 << 20);
        state.counters["peak_MB"] = peak / (1 << 20);
        state.counters["peak_per_size"] = peak / size;
        Peaks()[who] = peak / size;
    }
}

void BM_ParseComposed_Korvane(benchmark::State& s) {
    ParseOurs(s, {Composed()}, 200);
}
void BM_ParseComposed_GMime(benchmark::State& s) {
    ParseGMime(s, {Composed()}, 200);
}
void BM_ParseSamples_Korvane(benchmark::State& s) {
    ParseOurs(s, Samples(), 200);
}
void BM_ParseSamples_GMime(benchmark::State& s) {
    ParseGMime(s, Samples(), 200);
}
void BM_ParseCorpus_Korvane(benchmark::State& s) {
    ParseOurs(s, CorpusMessages(), 3, "corpus Korvane");
}
void BM_ParseCorpus_GMime(benchmark::State& s) {
    ParseGMime(s, CorpusMessages(), 3, "corpus GMime");
}
void BM_ParseCorpus_GMimeToUtf8(benchmark::State& s) {
    ParseGMime(s, CorpusMessages(), 3, "corpus GMime+utf8", true);
}
void BM_ParseCorpus_Python(benchmark::State& s) {
    ParsePython(s, Quoted(CorpusDir() + "/msgs"), 1, "corpus Python");  // 20 s a pass
}
void BM_ParseBig_Korvane(benchmark::State& s) {
    ParseOurs(s, CorpusBig(), 3, "big Korvane");
}
void BM_ParseBig_GMime(benchmark::State& s) {
    ParseGMime(s, CorpusBig(), 3, "big GMime");
}
void BM_ParseBig_Python(benchmark::State& s) {
    ParsePython(s, Quoted(CorpusDir() + "/big.eml"), 3, "big Python");
}
void BM_PeakBig_Korvane(benchmark::State& s) {
    Peak(s, "korvane");
}
void BM_PeakBig_GMime(benchmark::State& s) {
    Peak(s, "gmime");
}
void BM_PeakBig_Python(benchmark::State& s) {
    Peak(s, "python");
}

#define KV_PASSES(name) \
    BENCHMARK(name)->Unit(benchmark::kMillisecond)->Iterations(1)->UseManualTime()
KV_PASSES(BM_ParseComposed_Korvane);
KV_PASSES(BM_ParseComposed_GMime);
KV_PASSES(BM_ParseSamples_Korvane);
KV_PASSES(BM_ParseSamples_GMime);
KV_PASSES(BM_ParseCorpus_Korvane);
KV_PASSES(BM_ParseCorpus_GMime);
KV_PASSES(BM_ParseCorpus_GMimeToUtf8);
KV_PASSES(BM_ParseCorpus_Python);
KV_PASSES(BM_ParseBig_Korvane);
KV_PASSES(BM_ParseBig_GMime);
KV_PASSES(BM_ParseBig_Python);
KV_PASSES(BM_PeakBig_Korvane);
KV_PASSES(BM_PeakBig_GMime);
KV_PASSES(BM_PeakBig_Python);

void PrintSummary() {
    auto& r = Rates();
    auto ratio = [&](const char* ours, const char* peer, double target) {
        if (!r.count(ours) || !r.count(peer)) return;
        std::printf("  %-18s %8.1f MiB/s  %-18s %8.1f MiB/s  ratio %6.2fx  (target %gx)\n", ours,
                    r[ours], peer, r[peer], r[ours] / r[peer], target);
    };
    if (r.empty() && Peaks().empty()) return;
    std::printf("\nParse with every leaf decoded, CPU time of the best pass of each, same run:\n");
    ratio("corpus Korvane", "corpus GMime", 1.5);
    ratio("corpus Korvane", "corpus GMime+utf8", 1.5);
    ratio("corpus Korvane", "corpus Python", 25);
    ratio("big Korvane", "big GMime", 1.5);
    ratio("big Korvane", "big Python", 25);
    for (const auto& [who, x] : Peaks())
        std::printf("  peak memory parsing big.eml, %-8s %5.2fx its size%s\n", who.c_str(), x,
                    who == "korvane" ? " (target at most 3x)" : "");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "--peak") == 0) return PeakChild(argv[2], argv[3]);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    PrintSummary();
    benchmark::Shutdown();
    return 0;
}
