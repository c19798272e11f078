// Charsets and code pages: the lookup of a charset name, byte-to-byte
// conversion between code pages, the charset a HTML text declares in a meta
// tag, and the tag-attribute tokenizer that search shares with the HTML
// converters.
//
// A code page is a signed 32-bit Windows code-page number; -1 is unknown, and
// any other negative number given to a conversion means 0, the system's
// default code page (1252 here). None of these functions fails: an unknown
// charset is -1, and a conversion that cannot be done keeps the source bytes.
#pragma once

#include <cstdint>

#include "foundation/bstring.h"
#include "platform/charsetdb.h"

namespace kv {

constexpr int32_t kCodepageUnknown = -1;
constexpr int32_t kCodepageDefault = 0;
constexpr int32_t kCodepageUtf16 = 1200;
constexpr int32_t kCodepageWindows1252 = 1252;
constexpr int32_t kCodepageIso2022Kr = 50225;
constexpr int32_t kCodepageUtf7 = 65000;
constexpr int32_t kCodepageUtf8 = 65001;

// The code page of a charset name, or -1. The database gives a code page, an
// alias (followed), an empty key (-1) or no key; with no key, the name first
// asked for is tried against a short fallback table, ignoring case. Names
// that are empty or 238 bytes long or longer give -1. A missing key and each
// fallback hit write a trace line.
int32_t LookupCodepage(const bstring& name);
int32_t LookupCodepage(const bstring& name, const platform::CharsetDatabase& db);

// Converts src from src_codepage to dest_codepage into dest, which always
// holds a result: src itself when src_codepage is -1 or equal to
// dest_codepage, when src_codepage is 1252 and dest_codepage is neither UTF-8
// nor UTF-7, and when a conversion fails. Source 1200 is UTF-16LE, a leading
// FF FE skipped. Unmappable characters get the destination's default
// character. dest may be src. Returns dest.
bstring& ConvertCodepage(bstring& dest, const bstring& src, int32_t src_codepage,
                         int32_t dest_codepage);

// 1200 when bytes begin with FF FE, else codepage.
int32_t DetectUnicodeBom(const bstring& bytes, int32_t codepage);

// The charset that a <meta ...> tag of html declares, in lower case, through
// content="...; charset=x" or charset=x; result is emptied first and stays
// empty when there is none. With remove, the tag from its "<" through its ">"
// is cut out of html. A tag at offset 0 of the text is not recognised. Work
// is linear in the text: crafted text whose meta tags overlap so much that
// their total length passes four times the text's (plus 64 KiB) gives up with
// an empty result. Returns result.
bstring& FindMetaCharset(bstring& html, bool remove, bstring& result);

// The same search on wide text, recognising only the content="..." form and
// always cutting the tag out: what RemoveCharsetFromBody does to a body.
// Returns result (the charset in lower case, or empty).
wbstring& RemoveMetaCharset(wbstring& body, wbstring& result);

// Splits the text of a tag (without its angle brackets) into pairs: a name,
// then its value with a leading "=" (quotes removed), or "" for a name without
// one. tokens is cleared first. A one-unit token at the very end of the text
// is dropped: "a=b" gives only "a".
void TokenizeTagAttributes(const bstring& tag, bstring_vector& tokens);
void TokenizeTagAttributes(const wbstring& tag, wbstring_vector& tokens);

// The value after the first entry equal to name (ignoring case), without its
// leading "="; empty when no entry matches. Values are candidates for the
// name too. Returns result.
bstring& GetTagAttribute(const bstring_vector& tokens, const char* name, bstring& result);
wbstring& GetTagAttribute(const wbstring_vector& tokens, const char16_t* name, wbstring& result);

// What the message's ToUTF8 does. src carries one character per byte by the
// default code page (or real text when src_charset is empty); dest receives
// the UTF-8 bytes of the text, one character per byte by the default code
// page. An unknown src_charset keeps the bytes. Returns dest.
wbstring& ConvertTextToUTF8(const wbstring& src, const bstring& src_charset, wbstring& dest);

// What the message's ConvertCharset does:
//   both names empty: dest is a copy of src;
//   both given: src's bytes (by the default code page) are converted between
//     the two charsets and come back one character per byte;
//   only src_charset: src's bytes are decoded to text in src_charset;
//   only dest_charset: src's text is encoded in dest_charset and comes back
//     one character per byte.
// Returns dest.
wbstring& ConvertCharsetText(const wbstring& src, const bstring& src_charset,
                             const bstring& dest_charset, wbstring& dest);

}  // namespace kv
