// Media types: the message's body format numbers and their media
// types, media types from file names, and file extensions from media types.
#pragma once

#include <cstdint>

#include "foundation/bstring.h"

namespace kv {

// Body format numbers (BodyFormat and the internal format of a part).
enum MediaFormat : int32_t {
    kFormatPlain = 0,
    kFormatHtml = 1,
    kFormatRtf = 2,
    kFormatXml = 3,
    kFormatMixed = 4,
    kFormatRelated = 5,
    kFormatAlternative = 6,
    kFormatOtherText = 7,
    kFormatSmimeEnveloped = 16,
    kFormatSmimeSigned = 17,
};

// dest = the media type of a format number: 0 "text/plain", 1 "text/html",
// 2 "text/rtf", 3 "text/xml", 4 "multipart/mixed", 5 "multipart/related",
// 6 "multipart/alternative", 7 "text/plain", 16 the S/MIME enveloped type
// with its Content-Disposition line, 17 "multipart/signed;
// application/pkcs7-signature". 8 to 15 give an empty text; numbers above 17
// (and below 0) leave dest as it is.
bstring& GetFormatMediaType(bstring& dest, int32_t format);

// The format number of a media type, ignoring case: 0 for an empty type,
// "text/plain" or "text"; 1 "text/html"; 2 "text/rtf"; 3 "text/xml"; 7 for
// any other. The type is compared as it stands, not trimmed.
int32_t GetFormatFromMediaType(const bstring& mediaType);

// True for the multipart formats 4, 5 and 6.
bool IsMultipartFormat(int32_t format);

// dest = the media type of a file name's extension, what stands behind its
// last "." taken as bytes in the default code page and compared ignoring
// case. No dot, a dot as last character, or an extension not in the table
// give "application/octet-stream".
bstring& GetMediaTypeFromFileName(bstring& dest, const wbstring& fileName);

// dest = the file extension (no dot) for a media type: "eml" for a type
// beginning with "message/" (exact case: callers lower-case first); "gif",
// "jpg", "png", "html" for image/gif, image/jpeg, image/png, text/html
// (ignoring case); "dat" for any other with useDefault, else empty.
wbstring& GetExtensionFromMediaType(wbstring& dest, const bstring& mediaType, bool useDefault);

}  // namespace kv
