// The steps of the message parse that stand on their own: the multipart
// split, the header section, header parameters and the uuencode scan. The
// message's RawBodyToMessage strings them together (parse.cpp).
//
// None of them fails. Bad lines are dropped, bad parameters skipped, and
// work is linear in the input, whatever its bytes.
#pragma once

#include <cstdint>
#include <vector>

#include "foundation/bstring.h"
#include "message/collections.h"

namespace kv {

// A parse descends at most this many multipart levels; a deeper multipart
// is kept whole, as an attachment holding its body.
constexpr int32_t kMaxNestingDepth = 48;
// A parse splits at most this many sub-parts in all; the one that reaches
// the limit keeps the rest of its multipart body.
constexpr int32_t kMaxParts = 10000;

// Fills result (cleared first) with views into body, one per sub-part
// between boundary lines; they stay valid while body's owner is unchanged.
//
//   boundary-line = CRLF *"-" boundary ["--" *"-"] *(SP / HTAB) 2(CR / LF)
//
// The line break before a boundary belongs to it, so a sub-part begins with
// the line break that ends the boundary line. The preamble and empty
// stretches are skipped; a closing line ("--" behind the boundary, unless
// the boundary itself ends in "-") ends the walk and the epilogue is
// ignored. Without a closing line the rest of the body is the last
// sub-part, so a body in which the boundary never occurs is one sub-part.
// An empty boundary gives nothing. At most max_parts views are made: the
// last one then runs to the end of the body.
void SplitMultipart(std::vector<bstring>& result, const bstring& body, const bstring& boundary,
                    int32_t max_parts = kMaxParts);

// Appends the header lines of text (cut at CRLF) to headers: a continuation
// line joins the header before it; a repeated To or Cc merges into the first
// record as one list, any other repeated header (except Received,
// Content-Type and Content-Transfer-Encoding, which get records of their
// own) as further lines of the first record. Lines without a valid name are
// dropped.
void ParseHeaderSection(CMIMEHeaders& headers, const bstring& text);

// The wide value of every record: its raw value with encoded words decoded,
// plain text taken in codepage.
void DecodeHeaders(CMIMEHeaders& headers, int32_t codepage);

// The main value (first piece, trimmed, lower case) and the parameter map of
// each Content-Type and Content-Disposition record (name any case).
void SplitHeaderParameters(CMIMEHeaders& headers);
void SplitHeaderParameters(CMIMEHeader& record);

// Assembles the RFC 2231 parameter `name` (lower case) from the record's
// "name*", "name*0*", "name*1" ... entries, which are removed from the
// parameter map. True when a non-empty value came out; it is stored in the
// record's wide map under the plain name.
bool GetHeaderParameter(CMIMEHeader& record, const char* name);

// Looks for "begin nnn name" ... "end" blocks of uuencoded files at line
// starts in body. Each becomes an attachment (named by the codepage) at the
// end of attachments; text receives the body without the blocks. False, and
// text untouched, when there was none.
bool ScanUuencoded(const bstring& body, int32_t codepage, CAttachments& attachments,
                   bstring& text);

}  // namespace kv
