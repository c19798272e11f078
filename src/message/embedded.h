// Embedded objects: an HTML body's references to its pictures, rewritten to
// files in a message directory on the way out, and local file references
// turned into cid: references (with the files to attach) on the way in.
#pragma once

#include <cstdint>

#include "foundation/bstring.h"

namespace kv {

// Appends html to result with each src, background (any tag), lowsrc (img,
// input) and link href value that names an existing local file replaced by
// "cid:<id>" in double quotes. A relative name is taken from base_dir (with
// its final separator); "%XX" escapes are decoded in codepage unless the
// value holds a backslash, and a "file:///" prefix is cut. The ids and full
// paths of the files go to ids and paths, one pair per distinct path.
void RewriteLocalObjects(wbstring& result, wbstring_vector& ids, wbstring_vector& paths,
                         const wbstring& html, const wbstring& base_dir, int32_t codepage);

// Ten random digits, "-" and the counter: "3418076522-1".
wbstring& MakeContentId(int32_t counter, wbstring& result);

// The UTF-8 bytes of name with every byte but ASCII letters, digits, ".",
// "-" and "_" written as "%" and lower-case hex digits without padding
// ("%a" for byte 10).
wbstring& UrlEscapeName(const wbstring& name, wbstring& result);

}  // namespace kv
