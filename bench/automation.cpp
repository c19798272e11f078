// Cost of late binding through the C interface: one property get and one
// method call by member id (kv_invoke), as a host pays them, plus the id
// lookup by name that a host without a cache pays on top.
#include <benchmark/benchmark.h>

#include "korvane.h"

namespace {

kv_object* Make() {
    kv_register_test_class();
    kv_object* o = nullptr;
    kv_create("Korvane.TestObject", &o);
    return o;
}

void BM_PropertyGet(benchmark::State& state) {
    kv_object* o = Make();
    int32_t id;
    kv_get_id(o, "Long", &id);
    kv_variant r;
    for (auto _ : state) {
        kv_invoke(o, id, KV_GET, nullptr, 0, &r);
        benchmark::DoNotOptimize(r.lVal);
    }
    kv_release(o);
}
BENCHMARK(BM_PropertyGet);

void BM_MethodCall(benchmark::State& state) {
    kv_object* o = Make();
    int32_t id;
    kv_get_id(o, "Add", &id);
    kv_variant args[2], r;
    kv_variant_init(&args[0]);
    kv_variant_init(&args[1]);
    args[0].vt = args[1].vt = 3;  // VT_I4
    args[0].lVal = 1;
    args[1].lVal = 2;
    for (auto _ : state) {
        kv_invoke(o, id, KV_METHOD, args, 2, &r);
        benchmark::DoNotOptimize(r.lVal);
    }
    kv_release(o);
}
BENCHMARK(BM_MethodCall);

// A string argument coerced to a number, and an omitted optional argument.
void BM_MethodCallCoerced(benchmark::State& state) {
    kv_object* o = Make();
    int32_t id;
    kv_get_id(o, "Add", &id);
    kv_variant arg;
    kv_variant_init(&arg);
    arg.vt = 8;  // VT_BSTR
    arg.bstrVal = kv_bstr_from_utf8("5");
    kv_variant r;
    for (auto _ : state) {
        kv_invoke(o, id, KV_METHOD, &arg, 1, &r);
        benchmark::DoNotOptimize(r.lVal);
    }
    kv_variant_clear(&arg);
    kv_release(o);
}
BENCHMARK(BM_MethodCallCoerced);

void BM_StringPropertyGet(benchmark::State& state) {
    kv_object* o = Make();
    int32_t id;
    kv_get_id(o, "Text", &id);
    kv_variant v;
    kv_variant_init(&v);
    v.vt = 8;
    v.bstrVal = kv_bstr_from_utf8("a subject line of ordinary length");
    kv_invoke(o, id, KV_PUT, &v, 1, nullptr);
    kv_variant_clear(&v);
    kv_variant r;
    for (auto _ : state) {
        kv_invoke(o, id, KV_GET, nullptr, 0, &r);
        kv_variant_clear(&r);
    }
    kv_release(o);
}
BENCHMARK(BM_StringPropertyGet);

void BM_GetIdByName(benchmark::State& state) {
    kv_object* o = Make();
    int32_t id;
    for (auto _ : state) {
        kv_get_id(o, "AddItem", &id);
        benchmark::DoNotOptimize(id);
    }
    kv_release(o);
}
BENCHMARK(BM_GetIdByName);

}  // namespace

BENCHMARK_MAIN();
