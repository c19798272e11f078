// Transfer encodings: base64, quoted-printable, uuencode, and the
// line wrapping that stands in for an encoding when a body goes out as 7bit
// or 8bit.
//
// Every routine writes into a destination bstring that the caller owns and
// returns it. `append` false empties the destination first; `append` true
// writes behind what stands there. None of them fails or reports an error:
// bad input is skipped, copied or dropped by the rules below, and a result
// always stands.
//
// Sizes are bstring sizes (signed 32-bit). A result that would not fit in
// one (above INT32_MAX - 1 bytes) is not produced: the destination is left
// as the call found it after its `append` handling. A source may lie inside
// the destination; it is then copied before the destination is touched.
#pragma once

#include <cstdint>

#include "foundation/bstring.h"

namespace kv {

// Transfer encoding numbers, shared by bodies and encoded header words.
enum TransferEncoding : int32_t {
    kEncodingNone = 0,             // no Content-Transfer-Encoding; body goes through WrapBodyLines
    kEncodingText = 1,             // "7bit" (or "8bit"); WrapBodyLines
    kEncodingQuotedPrintable = 2,  // "quoted-printable"; EncodeQuotedPrintable
    kEncodingBase64 = 3,           // "base64"; EncodeBase64 with line breaks
};

// "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"
extern const char kBase64Alphabet[65];
// Upper-case hexadecimal digits: every digit an encoder writes.
extern const char kHexDigitsUpper[17];

// The safe set of the quoted-printable and Q encoders: bytes 33 to 60, 62,
// and 64 to 126 except 95. "=", "?", "_", controls, blank, tab and every byte
// from 127 up are outside it.
inline bool IsQuotedPrintableSafe(unsigned char c) {
    return (c >= 33 && c <= 60) || c == 62 || (c >= 64 && c <= 126 && c != 95);
}

// The byte-to-hex step: writes "=" and the two upper-case digits of c at out
// (three bytes) and returns out + 3.
inline char* WriteQuotedTriplet(char* out, unsigned char c) {
    out[0] = '=';
    out[1] = kHexDigitsUpper[c >> 4];
    out[2] = kHexDigitsUpper[c & 15];
    return out + 3;
}

// Base64 of src[0, len). With `wrap`, a CRLF follows every 76th character
// written by a whole three-byte group; the last group of one or two bytes
// (padded with "==" or "=") is never followed by a line break. So 57 bytes
// give 76 characters and CRLF, 56 bytes give 76 characters without one.
// A null src or len <= 0 writes nothing.
bstring& EncodeBase64(bstring& dest, const char* src, int32_t len, bool append, bool wrap);

// Decodes src[start, end) into dest (always emptied first). end < 0 or past
// src.nSize means src.nSize; start >= end gives an empty result; start < 0
// counts as 0.
// - Every byte outside the alphabet and "=" is skipped, wherever it stands.
// - The text is treated as if (end - start) % 4 further "=" followed it, so a
//   text that lacks its padding still yields its last bytes ("QUI" gives
//   "AB", "QQ" gives "A", "Q" nothing).
// - Each group of four values writes its first byte always, the second when
//   its third place is no "=", the third when neither the third nor the
//   fourth place is "=" ("Q===" gives byte 68). Padding does not end the
//   text: groups after it are decoded too. An incomplete last group is
//   dropped.
// dest may be src itself: the result then replaces the text.
bstring& DecodeBase64(bstring& dest, const bstring& src, int32_t start = 0, int32_t end = -1);

// Quoted-printable of src[0, len): CRLF pairs stay line breaks; bytes outside
// the safe set become "=XX", except blank and tab, which stay literal unless
// they end a line or the input; lines are cut by the soft break "=" CRLF so
// that a line holds at most 75 characters and its "=" (a triplet that ends a
// line can take it to 78). The column starts at 0 on every call.
bstring& EncodeQuotedPrintable(bstring& dest, const char* src, int32_t len, bool append);

// Decodes quoted-printable text (dest always emptied first). "=" and two
// hexadecimal digits (either case) give a byte; "=" followed by any other
// two bytes vanishes with them (so the soft break "=" CRLF disappears); "="
// with one byte behind it loses the "=" and keeps the byte; a final "="
// vanishes. Everything else is copied; trailing blanks are kept.
// With underscoreIsBlank (the Q encoding of header words) every "_" of src is
// first replaced by a blank in src itself (a view is first made an owned copy,
// as bstring edits of views do).
bstring& DecodeQuotedPrintable(bstring& dest, bstring& src, bool underscoreIsBlank);

// Decodes uuencoded body lines (dest always emptied first). Lines end at CRLF
// only; empty lines are passed over; a line whose first byte is 96 or above
// ("begin", "end", a lone grave accent, any byte from 128 up) is ignored. The
// first byte minus 32 is the line's byte count; the characters after it are
// completed with blanks to whole groups of four, each group writing three
// bytes while fewer than the count have been written for the line, and the
// output position then becomes the line's start plus the count: surplus bytes
// are overwritten or cut, and a count below 0 moves back (never before the
// start of dest). Bytes the count covers but no group wrote are 0.
// Hard limit: lines that would take the output past INT32_MAX - 16 bytes are
// not decoded.
bstring& DecodeUuencode(bstring& dest, const bstring& src);

// The body treatment of encodings 0 and 1: lines of up to 76 bytes pass
// unchanged; a longer line is broken with CRLF after a blank at index 76, or
// else after the last tab, blank or hyphen at index 38..75 of the line, or
// else after index 75. No byte is changed or removed.
bstring& WrapBodyLines(bstring& dest, const char* src, int32_t len, bool append);

// Converts src to bytes in `codepage` (wbstring::export_bstring; a negative
// code page means 0), then encodes them by `encoding`: 2 quoted-printable,
// 3 base64 with line breaks, any other value WrapBodyLines. src is not
// const because export_bstring keeps its reservation of the wide side.
bstring& EncodeBody(bstring& dest, wbstring& src, int32_t encoding, bool append, int32_t codepage);

}  // namespace kv
