/* Korvane: the C interface for hosts.
 *
 * Every object of the library is reached late-bound, as a script reaches it:
 * create it by ProgID, look up member ids by name, invoke by id with variant
 * arguments, and release it. Plain C; any language with a C FFI can use it.
 *
 * Status: every function that can fail returns an int status, 0 (S_OK) or 1
 * (S_FALSE) on success and a negative HRESULT with the Windows value on failure
 * (for example DISP_E_UNKNOWNNAME 0x80020006 as int32). After a failure
 * kv_last_error() gives a readable message for this thread. Nothing throws.
 *
 * Ownership: an object pointer handed out (kv_create, an object inside a
 * result variant) carries one reference, which the caller gives back with
 * kv_release. Variants the caller fills or receives are the caller's to clear
 * with kv_variant_clear. Arguments to kv_invoke are only borrowed.
 *
 * Threads: an object lives on the thread that made it; call it from there.
 */
#ifndef KORVANE_H
#define KORVANE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define KV_API __attribute__((visibility("default")))
#else
#define KV_API
#endif

/* An object behind IDispatch, reference counted. */
typedef struct kv_object kv_object;

/* The binary layout of a Windows VARIANT (C11 anonymous union) on 64-bit: a type word, three
 * reserved words, and a 16-byte union. Type numbers are the Windows ones:
 * 0 EMPTY, 1 NULL, 2 I2, 3 I4, 4 R4, 5 R8, 6 CY, 7 DATE, 8 BSTR, 9 DISPATCH,
 * 10 ERROR, 11 BOOL, 12 VARIANT, 13 UNKNOWN, 16 I1, 17 UI1, 18 UI2, 19 UI4,
 * 20 I8, 21 UI8, 22 INT, 23 UINT; 0x2000 ARRAY and 0x4000 BYREF combine with
 * them. A BOOL is -1 (true) or 0. A DATE counts days from 1899-12-30. A BSTR
 * is a pointer to UTF-16 units preceded by their byte length; a null BSTR is
 * distinct from an empty one. */
typedef struct kv_variant {
    uint16_t vt;
    uint16_t reserved1, reserved2, reserved3;
    union {
        int64_t llVal;
        int32_t lVal;
        uint8_t bVal;
        int16_t iVal;
        float fltVal;
        double dblVal;
        int16_t boolVal;
        int32_t scode;
        int64_t cyVal;
        double date;
        uint16_t *bstrVal;
        kv_object *pdispVal;
        void *parray;
        void *byref;
        int16_t *pboolVal;
        struct kv_variant *pvarVal;
        struct {
            void *pvRecord;
            void *pRecInfo;
        } brecVal;
    };
} kv_variant;

/* Invoke kinds, which combine as Invoke's flags do. */
enum { KV_METHOD = 1, KV_GET = 2, KV_PUT = 4, KV_PUTREF = 8 };

/* ---- objects ---- */

/* Creates an object through the in-process catalogue. progid is
 * "Korvane.Message" or "Korvane.Message.1", any case. CO_E_CLASSSTRING
 * (0x800401F3) for an unknown name. */
KV_API int kv_create(const char *progid, kv_object **out);
/* Creates through the key store, as the runtime would: the store gives the
 * class identifier and library of the ProgID, the library is loaded and its
 * class factory asked. store names the key store (null: the default one).
 * REGDB_E_CLASSNOTREG (0x80040154) when the store does not know the class. */
KV_API int kv_create_registered(const char *store, const char *progid, kv_object **out);
KV_API void kv_addref(kv_object *o);
KV_API void kv_release(kv_object *o);
/* Objects of the library alive now (objects, factories, sinks): 0 once a host
 * has released everything. */
KV_API long kv_live_objects(void);
/* 1 when a and b are the same object (interface identity), else 0. */
KV_API int kv_same_object(kv_object *a, kv_object *b);

/* Member id by name, ignoring case. DISP_E_UNKNOWNNAME when there is none. */
KV_API int kv_get_id(kv_object *o, const char *name, int32_t *dispid);
/* Calls member dispid. kind: KV_METHOD, KV_GET, KV_PUT, KV_PUTREF (or METHOD|GET
 * as a script does when it cannot tell). args are in call order; for a put the
 * last one is the value. An omitted optional argument may be passed as
 * kv_variant_missing(). result (may be null) receives the value, which the
 * caller clears. Failures: DISP_E_MEMBERNOTFOUND, DISP_E_BADPARAMCOUNT,
 * DISP_E_PARAMNOTOPTIONAL, DISP_E_TYPEMISMATCH, DISP_E_OVERFLOW, and
 * DISP_E_EXCEPTION when the member itself failed (kv_last_error has its text,
 * kv_last_scode its code). */
KV_API int kv_invoke(kv_object *o, int32_t dispid, int kind, kv_variant *args, int nargs,
                     kv_variant *result);
/* The member's own failure code of the last DISP_E_EXCEPTION on this thread. */
KV_API int32_t kv_last_scode(void);
/* Message of the last failing call on this thread (UTF-8); never null. */
KV_API const char *kv_last_error(void);

/* ---- type information ----
 * which: 0 the object's dispatch interface, 1 its event interface. Strings
 * point into static tables and stay valid while the library is loaded. */
typedef struct kv_member_info {
    int32_t dispid;
    const char *name;
    int kinds;     /* KV_METHOD | KV_GET | KV_PUT | KV_PUTREF bits */
    uint16_t vt;   /* property type or method result; 0 for none */
    int nparams;   /* for a put, the value comes after these */
    int noptional; /* the last noptional parameters may be left out */
} kv_member_info;

typedef struct kv_param_info {
    const char *name;
    uint16_t vt; /* 12 (VARIANT) takes anything; 0x4000 marks by reference */
    int optional;
} kv_param_info;

/* Interface name, e.g. "IMessage". E_NOINTERFACE when there is no such interface. */
KV_API int kv_type_name(kv_object *o, int which, const char **name);
KV_API int kv_member_count(kv_object *o, int which, int *count);
KV_API int kv_member_at(kv_object *o, int which, int index, kv_member_info *info);
/* default_value (may be null) receives the parameter's default, or a
 * "missing" marker when it has none. */
KV_API int kv_param_at(kv_object *o, int which, int member_index, int param, kv_param_info *info,
                       kv_variant *default_value);

/* ---- events ----
 * A sink receives each event on the firing thread: dispid, then the arguments
 * as fired, in reverse order, with by-reference ones (VT_BYREF|VT_BOOL Proceed)
 * writable through their pointer; the variants are borrowed for the call. The
 * return value is ignored. */
typedef int (*kv_sink)(void *ctx, int32_t dispid, kv_variant *args, int nargs);
/* Connects a sink to the object's event interface; cookie names the connection.
 * CONNECT_E_NOCONNECTION (0x80040200) for an object without events. */
KV_API int kv_advise(kv_object *source, kv_sink sink, void *ctx, uint32_t *cookie);
KV_API int kv_unadvise(kv_object *source, uint32_t cookie);
/* The pump of events mode: run after each wait slice of a blocking operation
 * with EnableEvents on, on the calling thread. Null removes it. */
KV_API void kv_set_pump(void (*pump)(void *ctx), void *ctx);

/* ---- strings (BSTR) ---- */
/* A string of len UTF-16 units copied from s (zeros if s is null). */
KV_API uint16_t *kv_bstr_alloc(const uint16_t *s, uint32_t len);
KV_API uint16_t *kv_bstr_from_utf8(const char *s);
KV_API uint32_t kv_bstr_len(const uint16_t *b); /* units; 0 for null */
KV_API void kv_bstr_free(uint16_t *b);

/* ---- variants ---- */
KV_API void kv_variant_init(kv_variant *v);
/* Frees what v owns (string, reference, array); v becomes EMPTY. */
KV_API int kv_variant_clear(kv_variant *v);
/* Deep copy into dst (cleared first). */
KV_API int kv_variant_copy(kv_variant *dst, const kv_variant *src);
/* Coerces src into dst as the runtime does (dst may be src). */
KV_API int kv_variant_change_type(kv_variant *dst, const kv_variant *src, uint16_t vt);
/* The marker of an omitted optional argument (VT_ERROR, DISP_E_PARAMNOTFOUND). */
KV_API kv_variant kv_variant_missing(void);

/* ---- byte arrays and variant arrays ---- */
/* v becomes a VT_ARRAY|VT_UI1 array of a copy of data[0, len). */
KV_API int kv_bytes_to_variant(const void *data, size_t len, kv_variant *v);
/* The bytes of a VT_ARRAY|VT_UI1 variant (also by reference): *data points into
 * the array and stays valid while v is unchanged. DISP_E_TYPEMISMATCH for others. */
KV_API int kv_variant_bytes(const kv_variant *v, const uint8_t **data, size_t *len);
/* v becomes a VT_ARRAY|VT_VARIANT array of copies of items, lower bound 0. */
KV_API int kv_array_to_variant(const kv_variant *items, int count, kv_variant *v);
/* Bounds of a one-dimensional array variant (also by reference). */
KV_API int kv_variant_array_bounds(const kv_variant *v, int32_t *lower, int32_t *count);
/* A copy of element index (lower bound included) as a variant, whatever the
 * array's element type. */
KV_API int kv_variant_array_get(const kv_variant *v, int32_t index, kv_variant *out);

/* ---- registration ----
 * Writes (or removes) the keys of every class of the library and of its type
 * library into the key store at path (null: the default store,
 * ~/.config/korvane/registry.ini), as DllRegisterServer and
 * DllUnregisterServer do for the default store. kv_create_registered then
 * resolves ProgIDs through that store. */
KV_API int kv_register_server(const char *store);
KV_API int kv_unregister_server(const char *store);

/* ---- for tests ----
 * Registers Korvane.TestObject and Korvane.TestItem, classes that exist only
 * to exercise this interface from tests. Not for applications. */
KV_API int kv_register_test_class(void);

#ifdef __cplusplus
}
#endif

#endif /* KORVANE_H */
