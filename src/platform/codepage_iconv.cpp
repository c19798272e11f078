#include "platform/codepage_iconv.h"

#include <errno.h>
#include <iconv.h>

#include <atomic>
#include <bit>
#include <cstring>

#include "platform/codepage.h"

namespace kv::platform::detail {

namespace {

struct IconvPage {
    int codepage;
    const char* decode_name;
    const char* encode_name;
};

// Windows code page -> glibc charset names. ISO-2022-JP-2 reads the three
// Japanese ISO-2022 variants alike (it knows ESC ( I half-width katakana);
// writing uses plain ISO-2022-JP, so half-width katakana is unmappable there.
constexpr IconvPage kIconvPages[] = {
    {932, "CP932", "CP932"},
    {936, "CP936", "CP936"},
    {949, "CP949", "CP949"},
    {950, "CP950", "CP950"},
    {1361, "JOHAB", "JOHAB"},
    {20932, "EUC-JP", "EUC-JP"},
    {20936, "GB2312", "GB2312"},
    {50220, "ISO-2022-JP-2", "ISO-2022-JP"},
    {50221, "ISO-2022-JP-2", "ISO-2022-JP"},
    {50222, "ISO-2022-JP-2", "ISO-2022-JP"},
    {50225, "ISO-2022-KR", "ISO-2022-KR"},
    {50227, "ISO-2022-CN", "ISO-2022-CN"},
    {51932, "EUCJP-MS", "EUCJP-MS"},
    {51936, "CP936", "CP936"},
    {51949, "EUC-KR", "EUC-KR"},
    {52936, "HZ", "HZ"},  // absent from glibc; stays unknown unless iconv gains it
    {54936, "GB18030", "GB18030"},
    {65000, "UTF-7", "UTF-7"},
};
constexpr int kIconvPageCount = sizeof(kIconvPages) / sizeof(kIconvPages[0]);

constexpr const char* kWideName =
    std::endian::native == std::endian::little ? "UTF-16LE" : "UTF-16BE";

const IconvPage* FindPage(int cp) {
    for (const IconvPage& p : kIconvPages) {
        if (p.codepage == cp) return &p;
    }
    return nullptr;
}

// A few descriptors per thread: opening one costs far more than a short
// conversion, and a descriptor must not be shared between threads.
class DescriptorCache {
public:
    ~DescriptorCache() {
        for (int i = 0; i < count_; ++i) iconv_close(entries_[i].cd);
    }

    // Returns a descriptor in its initial state, or (iconv_t)-1.
    iconv_t Get(const IconvPage& page, bool encode) {
        for (int i = 0; i < count_; ++i) {
            if (entries_[i].codepage == page.codepage && entries_[i].encode == encode) {
                Entry hit = entries_[i];
                std::memmove(&entries_[1], &entries_[0], sizeof(Entry) * i);
                entries_[0] = hit;
                iconv(hit.cd, nullptr, nullptr, nullptr, nullptr);
                return hit.cd;
            }
        }
        iconv_t cd = encode ? iconv_open(page.encode_name, kWideName)
                            : iconv_open(kWideName, page.decode_name);
        if (cd == reinterpret_cast<iconv_t>(-1)) return cd;
        if (count_ == kSize) {
            iconv_close(entries_[kSize - 1].cd);
            --count_;
        }
        std::memmove(&entries_[1], &entries_[0], sizeof(Entry) * count_);
        entries_[0] = Entry{page.codepage, encode, cd};
        ++count_;
        return cd;
    }

private:
    struct Entry {
        int codepage;
        bool encode;
        iconv_t cd;
    };
    static constexpr int kSize = 8;
    Entry entries_[kSize];
    int count_ = 0;
};

thread_local DescriptorCache t_descriptors;

constexpr ConvertResult Err(uint32_t e) { return -static_cast<ConvertResult>(e); }

constexpr size_t kScratch = 4096;

}  // namespace

bool IconvHasCodePage(int cp) {
    // 0 not asked yet, 1 available, 2 not.
    static std::atomic<uint8_t> known[kIconvPageCount];
    const IconvPage* page = FindPage(cp);
    if (!page) return false;
    std::atomic<uint8_t>& state = known[page - kIconvPages];
    uint8_t s = state.load(std::memory_order_relaxed);
    if (s == 0) {
        bool ok = true;
        for (bool encode : {false, true}) {
            iconv_t cd = encode ? iconv_open(page->encode_name, kWideName)
                                : iconv_open(kWideName, page->decode_name);
            if (cd == reinterpret_cast<iconv_t>(-1)) {
                ok = false;
            } else {
                iconv_close(cd);
            }
        }
        s = ok ? 1 : 2;
        state.store(s, std::memory_order_relaxed);
    }
    return s == 1;
}

ConvertResult IconvToWide(int cp, const char* src, size_t src_len, char16_t* dst, size_t dst_cap,
                          bool strict) {
    const IconvPage* page = FindPage(cp);
    if (!page) return Err(kErrorInvalidParameter);
    iconv_t cd = t_descriptors.Get(*page, false);
    if (cd == reinterpret_cast<iconv_t>(-1)) return Err(kErrorInvalidParameter);

    char16_t scratch[kScratch];
    const bool fill = dst != nullptr;
    size_t written = 0;
    char* in = const_cast<char*>(src);
    size_t in_left = src_len;
    bool flushing = false;

    // Emits one replacement unit; false when the destination is full.
    auto replace = [&]() {
        if (fill) {
            if (written == dst_cap) return false;
            dst[written] = u'\uFFFD';
        }
        ++written;
        return true;
    };

    for (;;) {
        char16_t* out_start = fill ? dst + written : scratch;
        size_t out_units = fill ? dst_cap - written : kScratch;
        char* out = reinterpret_cast<char*>(out_start);
        size_t out_left = out_units * sizeof(char16_t);
        size_t r = flushing ? iconv(cd, nullptr, nullptr, &out, &out_left)
                            : iconv(cd, &in, &in_left, &out, &out_left);
        int err = errno;
        written += (out - reinterpret_cast<char*>(out_start)) / sizeof(char16_t);
        if (r != static_cast<size_t>(-1)) {
            if (flushing) break;
            flushing = true;
            continue;
        }
        if (err == E2BIG) {
            if (fill) return Err(kErrorInsufficientBuffer);
            continue;
        }
        if (strict) return Err(kErrorNoUnicodeTranslation);
        if (!replace()) return Err(kErrorInsufficientBuffer);
        if (err == EILSEQ && !flushing) {
            ++in;
            --in_left;
        } else {
            // Incomplete sequence at the end (or a decoder that cannot finish):
            // one replacement for the rest.
            in_left = 0;
            iconv(cd, nullptr, nullptr, nullptr, nullptr);
            break;
        }
    }
    return static_cast<ConvertResult>(written);
}

ConvertResult IconvFromWide(int cp, const char16_t* src, size_t src_len, char* dst, size_t dst_cap,
                            const char* default_bytes, size_t default_len, bool* used_default,
                            bool strict) {
    const IconvPage* page = FindPage(cp);
    if (!page) return Err(kErrorInvalidParameter);
    iconv_t cd = t_descriptors.Get(*page, true);
    if (cd == reinterpret_cast<iconv_t>(-1)) return Err(kErrorInvalidParameter);

    char scratch[kScratch];
    const bool fill = dst != nullptr;
    size_t written = 0;
    char* in = reinterpret_cast<char*>(const_cast<char16_t*>(src));
    size_t in_left = src_len * sizeof(char16_t);
    bool flushing = false;
    bool after_default = false;  // the default bytes still have to be written
    size_t pending = 0;          // how many default characters

    for (;;) {
        char* out_start = fill ? dst + written : scratch;
        size_t out_left = fill ? dst_cap - written : kScratch;
        char* out = out_start;
        size_t r;
        if (flushing || after_default) {
            // Back to the initial shift state, so the default bytes read as
            // themselves (ISO-2022 leaves its double-byte set, UTF-7 its base64).
            r = iconv(cd, nullptr, nullptr, &out, &out_left);
        } else {
            r = iconv(cd, &in, &in_left, &out, &out_left);
        }
        int err = errno;
        written += out - out_start;
        if (r == static_cast<size_t>(-1)) {
            if (err == E2BIG) {
                if (fill) return Err(kErrorInsufficientBuffer);
                continue;
            }
            if (flushing || after_default) return Err(kErrorInvalidParameter);
            // EILSEQ: unmappable or a lone surrogate; EINVAL: a high surrogate
            // at the very end.
            char16_t unit;
            std::memcpy(&unit, in, sizeof unit);
            size_t skip = 1;
            bool lone = false;
            if (unit >= 0xD800 && unit <= 0xDBFF) {
                char16_t next = 0;
                if (in_left >= 2 * sizeof(char16_t)) std::memcpy(&next, in + 2, sizeof next);
                if (next >= 0xDC00 && next <= 0xDFFF) {
                    skip = 2;
                } else {
                    lone = true;
                }
            } else if (unit >= 0xDC00 && unit <= 0xDFFF) {
                lone = true;
            }
            if (strict && lone) return Err(kErrorNoUnicodeTranslation);
            // One default character per UTF-16 unit, as the single-byte pages do.
            in += skip * sizeof(char16_t);
            in_left -= skip * sizeof(char16_t);
            if (used_default) *used_default = true;
            after_default = true;
            pending = skip;
            continue;
        }
        if (after_default) {
            for (size_t k = 0; k < pending; ++k) {
                if (fill) {
                    if (dst_cap - written < default_len) return Err(kErrorInsufficientBuffer);
                    std::memcpy(dst + written, default_bytes, default_len);
                }
                written += default_len;
            }
            after_default = false;
            continue;
        }
        if (flushing) break;
        flushing = true;
    }
    return static_cast<ConvertResult>(written);
}

}  // namespace kv::platform::detail
