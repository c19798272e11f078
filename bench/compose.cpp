// Composing messages of a 100 KB text body and a 1 MB attachment, beside
// GMime 3 composing the same message in the same run. Both produce a
// multipart/mixed message: a quoted-printable text part and a base64 part.
#include <benchmark/benchmark.h>
#include <gmime/gmime.h>

#include <cstring>
#include <random>
#include <string>

#include "automation/bstr.h"
#include "automation/safearray.h"
#include "automation/variant.h"
#include "host.h"
#include "message/message.h"
#include "shell/classes.h"

namespace {

constexpr int kMessages = 1000;

const std::string& BodyText() {
    static const std::string text = [] {
        std::mt19937 rng(7);
        std::string s;
        while (s.size() < 100 * 1024) {
            for (int i = 0; i < 70; ++i) s += (rng() % 7 == 0) ? ' ' : char('a' + rng() % 26);
            s += "\r\n";
        }
        s.resize(100 * 1024);
        return s;
    }();
    return text;
}

const std::string& Attachment() {
    static const std::string data = [] {
        std::mt19937 rng(11);
        std::string s(1024 * 1024, '\0');
        for (char& c : s) c = char(rng());
        return s;
    }();
    return data;
}

void BM_Compose_Korvane(benchmark::State& state) {
    kv::shell::RegisterCatalogue();
    SAFEARRAY* array = SafeArrayCreateVector(VT_UI1, 0, uint32_t(Attachment().size()));
    void* bytes = nullptr;
    SafeArrayAccessData(array, &bytes);
    std::memcpy(bytes, Attachment().data(), Attachment().size());
    SafeArrayUnaccessData(array);
    VARIANT data;
    VariantInit(&data);
    data.vt = VT_ARRAY | VT_UI1;
    data.parray = array;
    kv::automation::Bstr name = kv::automation::Bstr::FromUtf8("report.bin");
    kv::automation::Bstr empty = kv::automation::Bstr::FromUtf8("");
    int64_t total = 0;
    for (auto _ : state) {
        for (int i = 0; i < kMessages; ++i) {
            kv::CMessage* msg = kv::CMessage::New();
            bench::PutText(msg, "FromAddr", "Sender <sender@example.org>");
            bench::PutText(msg, "ToAddr", "Receiver <receiver@example.org>");
            bench::PutText(msg, "Subject", "Monthly report");
            bench::PutText(msg, "BodyText", BodyText());
            VARIANT_BOOL ok;
            msg->AddMemoryAttachment(data, name.get(), empty.get(), empty.get(), &ok);
            msg->EnsureRawBody();
            total += msg->m_bsRawBody.nSize;
            msg->Release();
        }
    }
    state.SetBytesProcessed(total);
    VariantClear(&data);
}
BENCHMARK(BM_Compose_Korvane)->Unit(benchmark::kMillisecond)->Iterations(1);

void BM_Compose_GMime(benchmark::State& state) {
    g_mime_init();
    int64_t total = 0;
    for (auto _ : state) {
        for (int i = 0; i < kMessages; ++i) {
            GMimeMessage* message = g_mime_message_new(TRUE);
            g_mime_message_add_mailbox(message, GMIME_ADDRESS_TYPE_FROM, "Sender",
                                       "sender@example.org");
            g_mime_message_add_mailbox(message, GMIME_ADDRESS_TYPE_TO, "Receiver",
                                       "receiver@example.org");
            g_mime_message_set_subject(message, "Monthly report", "utf-8");
            GMimeMultipart* mixed = g_mime_multipart_new_with_subtype("mixed");

            GMimeTextPart* text = g_mime_text_part_new_with_subtype("plain");
            g_mime_text_part_set_text(text, BodyText().c_str());
            g_mime_part_set_content_encoding(GMIME_PART(text),
                                             GMIME_CONTENT_ENCODING_QUOTEDPRINTABLE);
            g_mime_multipart_add(mixed, GMIME_OBJECT(text));

            GMimePart* part = g_mime_part_new_with_type("application", "octet-stream");
            GMimeStream* source =
                g_mime_stream_mem_new_with_buffer(Attachment().data(), Attachment().size());
            GMimeDataWrapper* wrapper =
                g_mime_data_wrapper_new_with_stream(source, GMIME_CONTENT_ENCODING_DEFAULT);
            g_mime_part_set_content(part, wrapper);
            g_mime_part_set_filename(part, "report.bin");
            g_mime_part_set_content_encoding(part, GMIME_CONTENT_ENCODING_BASE64);
            g_mime_multipart_add(mixed, GMIME_OBJECT(part));
            g_mime_message_set_mime_part(message, GMIME_OBJECT(mixed));

            GMimeStream* out = g_mime_stream_mem_new();
            total += g_mime_object_write_to_stream(GMIME_OBJECT(message), nullptr, out);
            g_object_unref(out);
            g_object_unref(wrapper);
            g_object_unref(source);
            g_object_unref(part);
            g_object_unref(text);
            g_object_unref(mixed);
            g_object_unref(message);
        }
    }
    state.SetBytesProcessed(total);
}
BENCHMARK(BM_Compose_GMime)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
