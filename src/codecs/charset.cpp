#include "codecs/charset.h"

#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "foundation/trace.h"
#include "platform/codepage.h"

namespace kv {

namespace {

// The key path a registry lookup would open; a name must leave room for it
// within the 260 bytes of a path.
constexpr std::string_view kKeyPrefix = "MIME\\Database\\Charset\\";
constexpr int32_t kMaxPath = 260;
constexpr int32_t kMaxNameLength = kMaxPath - int32_t(kKeyPrefix.size());

// An alias chain in the platform's database could in principle loop; the
// built-in table has none, and this bound only keeps a bad table from hanging.
constexpr int kMaxAliasHops = 64;

struct FallbackEntry {
    const char* names[2];
    int32_t codepage;
    const char* trace;
};

// Charsets that older charset databases do not know.
constexpr FallbackEntry kFallback[] = {
    {{"ISO-8859-13", nullptr}, 1257, "ISO-8859-13 codepage is 1257"},
    {{"ISO-8859-15", nullptr}, 28605, "ISO-8859-15 codepage is 28605"},
    {{"TIS-620", "iso-8859-11"}, 874, "TIS-620/iso-8859-11 codepage is 874"},
    {{"koi8-u", "koi8-ru"}, 21866, "koi8-ru/koi8-u codepage is 21866"},
    {{"GB18030", nullptr}, 54936, "GB18030 codepage is 54936"},
};

int32_t LookupFallback(std::string_view name) {
    bstring asked;
    asked.borrow(name.data(), int32_t(name.size()));
    for (const FallbackEntry& entry : kFallback) {
        for (const char* candidate : entry.names) {
            if (candidate && asked.equals(candidate)) {
                Trace(entry.trace);
                return entry.codepage;
            }
        }
    }
    return kCodepageUnknown;
}

bstring& CopyUnchanged(bstring& dest, const bstring& src) {
    if (&dest != &src) dest.assign(src.pData, src.nSize > 0 ? src.nSize : 0);
    return dest;
}

// Wide text to bytes in a code page, and back, without the import gate's
// fallback: the default code page maps every byte and every unit it can.
void WideToBytes(const wbstring& src, int32_t codepage, bstring& dest) {
    dest.nSize = 0;
    if (src.nSize < 1) return;
    if (codepage < 0) codepage = 0;
    int count = platform::WideCharToMultiByte(codepage, 0, src.pData, src.nSize, nullptr, 0);
    if (count < 1) return;
    dest.reserve(count);
    if (!dest.pData) return;
    int written = platform::WideCharToMultiByte(codepage, 0, src.pData, src.nSize, dest.pData, count);
    dest.nSize = written > 0 ? written : 0;
}

void BytesToWide(const bstring& src, int32_t codepage, wbstring& dest) {
    dest.nSize = 0;
    if (src.nSize < 1) return;
    int count = platform::MultiByteToWideChar(codepage, 0, src.pData, src.nSize, nullptr, 0);
    if (count < 1) return;
    dest.reserve(count);
    if (!dest.pData) return;
    int written = platform::MultiByteToWideChar(codepage, 0, src.pData, src.nSize, dest.pData, count);
    dest.nSize = written > 0 ? written : 0;
}

// ---- tag attributes --------------------------------------------------------

template <class U>
bool IsTagSpace(U c) {
    return c == U(' ') || c == U('\t') || c == U('\r') || c == U('\n') || c == U('\f');
}

template <class S>
void Tokenize(const S& tag, std::vector<S>& tokens) {
    using U = std::remove_reference_t<decltype(*tag.pData)>;
    tokens.clear();
    const int32_t n = tag.nSize > 0 ? tag.nSize : 0;
    const U* text = tag.pData;
    bool in_single = false, in_double = false, in_token = false;
    bool saw_equals = false, after_name = false;
    int32_t token_start = 0, token_end = -1;
    for (int32_t p = 0; p < n; ++p) {
        U c = text[p];
        if (in_single || in_double) {
            if ((in_single && c == U('\'')) || (in_double && c == U('"'))) {
                in_single = in_double = false;
                token_end = p;
            }
        } else if (IsTagSpace(c) || c == U('=')) {
            if (c == U('=')) saw_equals = true;
            if (in_token) {
                in_token = false;
                token_end = p;
            }
        } else if (!in_token) {
            if (c == U('\'')) {
                in_single = true;
                token_start = p + 1;
            } else if (c == U('"')) {
                in_double = true;
                token_start = p + 1;
            } else {
                in_token = true;
                token_start = p;
            }
        } else if (p == n - 1) {
            in_token = false;
            token_end = n;
        }
        if (token_end < 0) continue;
        // A token closed by the end of the text has no unit behind it; that
        // counts as "not an equals sign".
        bool equals_behind = token_end < n && text[token_end] == U('=');
        S token;
        if (saw_equals && !equals_behind) {
            saw_equals = false;
            after_name = false;
            token.reserve(token_end - token_start + 1);
            token += U('=');
        } else {
            if (after_name) tokens.emplace_back();
            after_name = true;
            token.reserve(token_end - token_start);
        }
        token.append(text + token_start, token_end - token_start);
        tokens.push_back(std::move(token));
        token_end = -1;
    }
}

template <class S, class U>
S& GetAttribute(const std::vector<S>& tokens, const U* name, S& result) {
    result.nSize = 0;
    for (size_t i = 0; i < tokens.size(); ++i) {
        if (!tokens[i].equals(name)) continue;
        if (i + 1 < tokens.size() && tokens[i + 1].nSize > 1)
            result.assign(tokens[i + 1].pData + 1, tokens[i + 1].nSize - 1);
        break;
    }
    return result;
}

// ---- meta charset ----------------------------------------------------------

template <class U>
struct MetaWords;
template <>
struct MetaWords<char> {
    static constexpr const char* kCharset = "charset";
    static constexpr const char* kContent = "content";
    static constexpr const char* kMeta = "meta";
};
template <>
struct MetaWords<char16_t> {
    static constexpr const char16_t* kCharset = u"charset";
    static constexpr const char16_t* kContent = u"content";
    static constexpr const char16_t* kMeta = u"meta";
};

// The charset of content="type; charset=x": the first piece that begins with
// "charset", read behind its first "=", trimmed and unquoted. False when no
// piece names a charset.
template <class S>
bool CharsetFromContent(const S& value, S& charset) {
    using U = std::remove_reference_t<decltype(*value.pData)>;
    std::vector<S> pieces;
    value.split(pieces, U(';'));
    for (S& piece : pieces) {
        piece.trim_all();
        if (!piece.equals_prefix(MetaWords<U>::kCharset, 7)) continue;
        int32_t eq = piece.find(U('='));
        charset.nSize = 0;
        if (eq >= 0) charset.assign(piece.pData + eq + 1, piece.nSize - eq - 1);
        charset.trim_all().unquote().trim_all();
        return true;
    }
    return false;
}

// The search behind FindMetaCharset and RemoveMetaCharset. Candidates are
// the "charset" words of a lower-case copy that stand inside a "<meta ...>"
// tag; the first one that yields a value ends the search.
template <class S>
S& SearchMetaCharset(S& text, bool remove, bool content_only, S& result) {
    using U = std::remove_reference_t<decltype(*text.pData)>;
    result.nSize = 0;
    if (text.nSize < 1) return result;
    S lower(text.pData, text.nSize);
    lower.to_lower();
    std::vector<S> tokens;
    // Candidates come in order, so the nearest "<" before one and the first
    // ">" behind it are carried forward instead of searched for again, and a
    // tag already tokenized without a result is not tokenized again. Tags of
    // crafted text can still overlap ("<meta charset <meta charset ..."); the
    // budget keeps that linear.
    int64_t budget = 4 * int64_t(lower.nSize) + 65536;
    int32_t scanned = 0, lt = -1, gt = -1, last_lt = -1, last_gt = -1;
    int32_t pos = 0;
    for (;;) {
        int32_t at = lower.find(pos, MetaWords<U>::kCharset);
        if (at <= 0 || lower.nSize - at < 8) break;
        pos = at + 7;
        for (; scanned < at; ++scanned)
            if (lower.pData[scanned] == U('<')) lt = scanned;
        if (gt < at + 7) gt = lower.find(at + 7, U('>'));
        if (gt < 0) break;  // no later candidate has a ">" either
        if (lt <= 0 || !lower.equals_at(lt + 1, 4, MetaWords<U>::kMeta, 4)) continue;
        if (lt == last_lt && gt == last_gt) continue;
        last_lt = lt;
        last_gt = gt;
        budget -= gt - lt;
        if (budget < 0) break;

        S tag;
        tag.borrow(lower.pData + lt + 1, gt - lt - 1);
        Tokenize(tag, tokens);
        S value;
        bool decided = false;
        for (size_t i = 0; i + 1 < tokens.size() && !decided; ++i) {
            const S& next = tokens[i + 1];
            if (next.nSize < 1 || next.pData[0] != U('=')) continue;
            S inner;
            inner.borrow(next.pData + 1, next.nSize - 1);
            if (tokens[i].equals(MetaWords<U>::kContent)) {
                decided = true;
                if (!CharsetFromContent(inner, value)) value.nSize = 0;
            } else if (!content_only && tokens[i].equals(MetaWords<U>::kCharset)) {
                decided = true;
                value.assign(inner.pData, inner.nSize);
            }
        }
        if (value.nSize < 1) continue;

        if (remove) {
            S cut;
            cut.reserve(text.nSize - (gt - lt + 1));
            cut.append(text.pData, lt);
            cut.append(text.pData + gt + 1, text.nSize - gt - 1);
            text = std::move(cut);
        }
        result.assign(value.pData, value.nSize);
        break;
    }
    return result;
}

}  // namespace

// ---- lookup ----------------------------------------------------------------

int32_t LookupCodepage(const bstring& name) {
    return LookupCodepage(name, platform::CharsetDatabase::Builtin());
}

int32_t LookupCodepage(const bstring& name, const platform::CharsetDatabase& db) {
    if (name.nSize < 1 || name.nSize >= kMaxNameLength) return kCodepageUnknown;
    std::string_view key_name(name.pData, size_t(name.nSize));
    // A key path ends at a NUL.
    key_name = key_name.substr(0, key_name.find('\0'));
    // An empty key name opens the database's own key, which has no values.
    if (key_name.empty()) return kCodepageUnknown;
    const std::string_view asked = key_name;
    for (int hop = 0; hop <= kMaxAliasHops; ++hop) {
        platform::CharsetKey key = db.Open(key_name);
        switch (key.kind) {
            case platform::CharsetKeyKind::kCodepage:
                return key.codepage;
            case platform::CharsetKeyKind::kEmpty:
                return kCodepageUnknown;
            case platform::CharsetKeyKind::kAlias:
                key_name = key.alias;
                continue;
            case platform::CharsetKeyKind::kNoKey: {
                std::string path(kKeyPrefix);
                path.append(key_name);
                TraceBegin();
                TraceAppend("RegOpenKeyEx failed to locate charset info at HKEY_CLASSES_ROOT\\");
                TraceAppend(path.c_str());
                TraceAppend(" and returned error code=");
                TraceAppendInt(key.error);
                Trace();
                return LookupFallback(asked);
            }
        }
    }
    return kCodepageUnknown;
}

// ---- conversion ------------------------------------------------------------

bstring& ConvertCodepage(bstring& dest, const bstring& src, int32_t src_codepage,
                         int32_t dest_codepage) {
    // dest may be src: src is read through before dest is written.
    if (src_codepage == kCodepageUnknown || src_codepage == dest_codepage ||
        (src_codepage == kCodepageWindows1252 && dest_codepage != kCodepageUtf8 &&
         dest_codepage != kCodepageUtf7))
        return CopyUnchanged(dest, src);
    if (src_codepage < 0) src_codepage = kCodepageDefault;
    if (dest_codepage < 0) dest_codepage = kCodepageDefault;

    const int32_t src_size = src.nSize > 0 ? src.nSize : 0;
    wbstring wide;
    if (src_codepage == kCodepageUtf16) {
        const unsigned char* p = reinterpret_cast<const unsigned char*>(src.pData);
        int32_t n = src_size;
        if (n >= 2 && p[0] == 0xFF && p[1] == 0xFE) {
            p += 2;
            n -= 2;
        }
        wide.reserve(n / 2);
        for (int32_t i = 0; i + 1 < n; i += 2)
            wide.pData[wide.nSize++] = char16_t(p[i] | (p[i + 1] << 8));
    } else {
        // ISO-2022-KR goes through the same call: the platform layer carries
        // the decoder that the multi-language service gave on Windows.
        int count =
            platform::MultiByteToWideChar(src_codepage, 0, src.pData, src_size, nullptr, 0);
        int written = 0;
        if (count > 0) {
            wide.reserve(count);
            written = platform::MultiByteToWideChar(src_codepage, 0, src.pData, src_size,
                                                    wide.pData, count);
        }
        if (written < 1) {
            uint32_t error = platform::GetLastError();
            CopyUnchanged(dest, src);
            TraceBegin();
            TraceAppend("MultiByteToWideChar failed for codepage=");
            TraceAppendInt(src_codepage);
            TraceAppend(" with GetLastError()=");
            TraceAppendInt(error);
            Trace();
            return dest;
        }
        wide.nSize = written;
    }

    int length = platform::WideCharToMultiByte(dest_codepage, 0, wide.pData, wide.nSize, nullptr, 0);
    if (length < 1) return CopyUnchanged(dest, src);
    bstring out;
    out.reserve(length);
    int written =
        platform::WideCharToMultiByte(dest_codepage, 0, wide.pData, wide.nSize, out.pData, length);
    if (written < 1) return CopyUnchanged(dest, src);
    out.nSize = written;
    dest = std::move(out);
    return dest;
}

int32_t DetectUnicodeBom(const bstring& bytes, int32_t codepage) {
    if (bytes.nSize >= 2 && static_cast<unsigned char>(bytes.pData[0]) == 0xFF &&
        static_cast<unsigned char>(bytes.pData[1]) == 0xFE)
        return kCodepageUtf16;
    return codepage;
}

// ---- meta charset and tag attributes ---------------------------------------

bstring& FindMetaCharset(bstring& html, bool remove, bstring& result) {
    return SearchMetaCharset(html, remove, false, result);
}

wbstring& RemoveMetaCharset(wbstring& body, wbstring& result) {
    return SearchMetaCharset(body, true, true, result);
}

void TokenizeTagAttributes(const bstring& tag, bstring_vector& tokens) { Tokenize(tag, tokens); }

void TokenizeTagAttributes(const wbstring& tag, wbstring_vector& tokens) { Tokenize(tag, tokens); }

bstring& GetTagAttribute(const bstring_vector& tokens, const char* name, bstring& result) {
    return GetAttribute(tokens, name, result);
}

wbstring& GetTagAttribute(const wbstring_vector& tokens, const char16_t* name, wbstring& result) {
    return GetAttribute(tokens, name, result);
}

// ---- the message's conversion methods --------------------------------------

wbstring& ConvertTextToUTF8(const wbstring& src, const bstring& src_charset, wbstring& dest) {
    bstring bytes;
    if (src_charset.nSize > 0) {
        bstring raw;
        WideToBytes(src, kCodepageDefault, raw);
        ConvertCodepage(bytes, raw, LookupCodepage(src_charset), kCodepageUtf8);
    } else {
        WideToBytes(src, kCodepageUtf8, bytes);
    }
    BytesToWide(bytes, kCodepageDefault, dest);
    return dest;
}

wbstring& ConvertCharsetText(const wbstring& src, const bstring& src_charset,
                             const bstring& dest_charset, wbstring& dest) {
    const bool has_src = src_charset.nSize > 0, has_dest = dest_charset.nSize > 0;
    if (!has_src && !has_dest) {
        if (&dest != &src) dest.assign(src.pData, src.nSize > 0 ? src.nSize : 0);
        return dest;
    }
    bstring bytes;
    if (has_src) {
        WideToBytes(src, kCodepageDefault, bytes);
        if (has_dest) {
            ConvertCodepage(bytes, bytes, LookupCodepage(src_charset), LookupCodepage(dest_charset));
            BytesToWide(bytes, kCodepageDefault, dest);
        } else {
            dest.import_bstring(bytes, LookupCodepage(src_charset));
        }
    } else {
        WideToBytes(src, LookupCodepage(dest_charset), bytes);
        BytesToWide(bytes, kCodepageDefault, dest);
    }
    return dest;
}

}  // namespace kv
