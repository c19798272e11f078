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

    // Emits one replacement unit; false when the destination is full.
    auto replace = [&]() {
        if (fill) {
            if (written == dst_cap) return false;
            dst[written] = u'\uFFFD';
        }
        ++written;
        return true;
    };

    // iconv may ask for room for its longest character even where the next
    // one is shorter or unmappable, so near the end of the destination the
    // output goes through the scratch buffer and is copied if it fits.
    bool via_scratch = !fill;
    while (in_left > 0) {
        char16_t* out_start = via_scratch ? scratch : dst + written;
        size_t out_units = via_scratch ? kScratch : dst_cap - written;
        char* out = reinterpret_cast<char*>(out_start);
        size_t out_left = out_units * sizeof(char16_t);
        size_t r = iconv(cd, &in, &in_left, &out, &out_left);
        int err = errno;
        size_t produced = (out - reinterpret_cast<char*>(out_start)) / sizeof(char16_t);
        if (fill && via_scratch) {
            if (dst_cap - written < produced) return Err(kErrorInsufficientBuffer);
            std::memcpy(dst + written, scratch, produced * sizeof(char16_t));
        }
        written += produced;
        if (r != static_cast<size_t>(-1)) break;
        if (err == E2BIG) {
            via_scratch = true;
            continue;
        }
        if (strict) return Err(kErrorNoUnicodeTranslation);
        if (!replace()) return Err(kErrorInsufficientBuffer);
        if (err == EILSEQ) {
            ++in;
            --in_left;
        } else {
            // A sequence cut off at the end: one replacement for the rest.
            iconv(cd, nullptr, nullptr, nullptr, nullptr);
            return static_cast<ConvertResult>(written);
        }
    }
    // Whatever the decoder still holds. Through a small buffer, because iconv
    // refuses even an empty flush when the destination has no room left.
    char16_t tmp[16];
    char* out = reinterpret_cast<char*>(tmp);
    size_t out_left = sizeof tmp;
    if (iconv(cd, nullptr, nullptr, &out, &out_left) != static_cast<size_t>(-1)) {
        size_t produced = (out - reinterpret_cast<char*>(tmp)) / sizeof(char16_t);
        if (fill) {
            if (dst_cap - written < produced) return Err(kErrorInsufficientBuffer);
            std::memcpy(dst + written, tmp, produced * sizeof(char16_t));
        }
        written += produced;
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

    // Returns the shift state to the initial one. The reset bytes go through
    // a small buffer first: iconv refuses even an empty reset when the
    // destination has no room left.
    auto reset_state = [&]() -> bool {
        char tmp[64];
        char* out = tmp;
        size_t out_left = sizeof tmp;
        if (iconv(cd, nullptr, nullptr, &out, &out_left) == static_cast<size_t>(-1)) return false;
        size_t produced = out - tmp;
        if (fill) {
            if (dst_cap - written < produced) return false;
            std::memcpy(dst + written, tmp, produced);
        }
        written += produced;
        return true;
    };

    // As in IconvToWide: near the end of the destination, through scratch.
    bool via_scratch = !fill;
    while (in_left > 0) {
        char* out_start = via_scratch ? scratch : dst + written;
        size_t out_left = via_scratch ? kScratch : dst_cap - written;
        char* out = out_start;
        size_t r = iconv(cd, &in, &in_left, &out, &out_left);
        int err = errno;
        size_t produced = out - out_start;
        if (fill && via_scratch) {
            if (dst_cap - written < produced) return Err(kErrorInsufficientBuffer);
            std::memcpy(dst + written, scratch, produced);
        }
        written += produced;
        if (r != static_cast<size_t>(-1)) break;
        if (err == E2BIG) {
            via_scratch = true;
            continue;
        }
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
        in += skip * sizeof(char16_t);
        in_left -= skip * sizeof(char16_t);
        if (used_default) *used_default = true;
        // Default bytes read as themselves only in the initial shift state
        // (ISO-2022 leaves its double-byte set, UTF-7 its base64 run).
        if (!reset_state()) return Err(kErrorInsufficientBuffer);
        // One default character per UTF-16 unit, as the single-byte pages do.
        for (size_t k = 0; k < skip; ++k) {
            if (fill) {
                if (dst_cap - written < default_len) return Err(kErrorInsufficientBuffer);
                std::memcpy(dst + written, default_bytes, default_len);
            }
            written += default_len;
        }
    }
    if (!reset_state()) return Err(kErrorInsufficientBuffer);
    return static_cast<ConvertResult>(written);
}

}  // namespace kv::platform::detail
