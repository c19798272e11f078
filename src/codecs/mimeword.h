// Encoded header words: a wide header value to its 7-bit wire form with
// RFC 2047 words and folding, and back; RFC 2231 parameter values on the
// reading side.
//
//   encoded-word = "=?" charset "?" ("Q" / "B") "?" encoded-text "?="
//   ext-value    = charset "'" [language] "'" *(attr-char / "%" HEXDIG HEXDIG)
#pragma once

#include <vector>

#include "foundation/bstring.h"

namespace kv {

// One piece of a header value on the reading side.
struct MimeWordChunk {
    bstring text;           // raw bytes, already base64/Q/percent decoded for encoded pieces
    int32_t codepage = -1;  // of an encoded piece; -1 when its charset is unknown
    bool encoded = false;
};

// Address headers, whose addresses are never encoded: to, cc, from,
// reply-to, disposition-notification-to, return-path (any case).
bool IsAddressHeader(const bstring& name);

// The wire form of value for the header `name` (result cleared first). The
// value is converted to `codepage` (negative: the system default); pure
// ASCII comes out as it stands; otherwise words are encoded with "Q"
// (encoding 2) or "B" (encoding 3) under `charset` and folded. Any other
// encoding, or a charset and name too long to leave room, gives an empty
// result.
bstring& EncodeHeaderValue(const bstring& name, const wbstring& value, const bstring& charset,
                           int32_t codepage, int32_t encoding, bstring& result);

// Appends one encoded word (or several, folded) of src[0, len) to out.
// column is the output column before and after; prefix is "=?cs?Q?" or
// "=?cs?B?". With fold, lines are kept near 72-76 columns.
void EncodeMimeWord(bstring& out, const char* src, int32_t len, int32_t encoding, bool append,
                    int32_t& column, const bstring& prefix, bool fold);
void EncodeMimeWordQ(bstring& out, const char* src, int32_t len, int32_t& column,
                     const bstring& prefix, bool fold);
void EncodeMimeWordB(bstring& out, const char* src, int32_t len, int32_t& column,
                     const bstring& prefix, bool fold);

// The text of a header value with its encoded words decoded (result cleared
// first). Plain pieces convert by default_codepage. Malformed words stay as
// text; adjacent words of one code page are joined before conversion, so a
// character split over two words survives.
wbstring& DecodeMimeWords(const bstring& src, wbstring& result, int32_t default_codepage);

// Joins adjacent chunks of equal kind and code page (the later ones are
// emptied), as both decoders do before converting.
void MergeMimeWordChunks(std::vector<MimeWordChunk>& chunks);

// One segment of an RFC 2231 value: its text, and whether it is encoded.
// A segment with a charset sets codepage; a later segment without one is
// encoded when an earlier one gave a charset (codepage >= 0).
bool ParseExtendedValue(const bstring& value, bstring& text, int32_t& codepage);

// "%XX" to bytes; "%00" and other zero values keep their "%"; a "%" in the
// last two bytes ends the walk.
bstring& PercentDecode(const bstring& src, bstring& result);

}  // namespace kv
