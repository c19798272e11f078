// Header decoding and address-list splitting over real-world values, a
// million of each per iteration.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "codecs/address.h"
#include "codecs/mimeword.h"

namespace {

// Values as mail programs wrote them (from public test corpora).
const char* const kHeaderValues[] = {
    "=?utf-8?q?Olle_J=C3=A4rnefors?= <ojarnef@admin.kth.se>",
    "James Hillyerd <jamehi03@jamehi03lx.noa.com>, =?ISO-8859-1?Q?Andr=E9?= Pirard <PIRARD@vm1.ulg.ac.be>",
    "=?US-ASCII?Q?Test_QP_Subject=21?=",
    "=?utf-8?b?wqFIb2xhLCBzZcOxb3Ih?=",
    "=?utf-8?q?MIME_UTF8_Test_=c2=a2?= More Text",
    "=?UTF-8?Q?Miros=C5=82aw_Marczak?= <marczak@inbucket.com>",
    "Re: [Python-Dev] Plain subject line without any encoded word",
    "=?iso-2022-jp?B?GyRCRnxLXDhsGyhC?= =?iso-2022-jp?B?GyRCJUYlOSVIGyhC?=",
};

const char* const kAddressLists[] = {
    "John Smith <js@example.com>, \"Doe, Jane\" <jd@example.com>; x@example.org",
    "\"Barry A. Warsaw\" <barry@python.org>",
    "bperson@dom.ain (Bob Person)",
    "Dilbert <dilbert@example.com>,\r\n\tDogbert <dogbert@example.com>, Catbert <c@example.com>",
    "undisclosed-recipients:;",
    "Smith, John <john.smith@example.net>, ops@example.net",
};

void BM_DecodeHeaderValues(benchmark::State& state) {
    std::vector<kv::bstring> values;
    for (const char* v : kHeaderValues) values.emplace_back(v);
    kv::wbstring out;
    int64_t bytes = 0;
    for (auto _ : state) {
        for (int i = 0; i < 1000000; ++i) {
            const kv::bstring& v = values[size_t(i) % values.size()];
            kv::DecodeMimeWords(v, out, 65001);
            bytes += v.nSize;
        }
        benchmark::DoNotOptimize(out.pData);
    }
    state.SetItemsProcessed(state.iterations() * 1000000);
    state.SetBytesProcessed(bytes);
}
BENCHMARK(BM_DecodeHeaderValues)->Unit(benchmark::kMillisecond);

void BM_SplitAddressLists(benchmark::State& state) {
    std::vector<kv::bstring> lists;
    for (const char* v : kAddressLists) lists.emplace_back(v);
    std::vector<kv::bstring> pure;
    int64_t bytes = 0;
    for (auto _ : state) {
        for (int i = 0; i < 1000000; ++i) {
            const kv::bstring& l = lists[size_t(i) % lists.size()];
            kv::ParsePureAddresses(l, pure);
            bytes += l.nSize;
        }
        benchmark::DoNotOptimize(pure.data());
    }
    state.SetItemsProcessed(state.iterations() * 1000000);
    state.SetBytesProcessed(bytes);
}
BENCHMARK(BM_SplitAddressLists)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
