// HTML to plain text: the plain alternative of an HTML body.
//
// One pass over the wide text with a small state machine, not an HTML parser:
// the head is dropped, tags and comments are removed, a few block tags
// (p, table, tr, div, li, ul, ol) and br become line breaks, runs of white
// space collapse to one blank, and entities are decoded. Nothing else is
// special: the text of style, script, title (outside the head) and textarea
// comes out as text. Quotes inside a tag protect nothing: the first ">" ends
// it. A tag or comment that never closes is copied out as text from its "<".
#pragma once

#include <cstdint>

#include "foundation/bstring.h"

namespace kv {

// Bits of AltBodyOptions that the converter reads. The low two bits choose
// the source of a parsed message's AltBodyText and do not concern it.
constexpr int32_t kAltBodyKeepLinks = 4;   // "text <target> " after a link
constexpr int32_t kAltBodyImageAlt = 8;    // the alt text of each img
constexpr int32_t kAltBodyHtmlLinks = 16;  // keep <a> markup, breaks as " <br> ",
                                           // entities left alone

// Converts source into result (emptied first; result may be source).
//
// codepage: entity values below 256 are bytes, turned into characters in this
// code page; 0 (or less, or a code page this system does not know) takes
// each byte value as its own character. A byte that is no character on its
// own in a multibyte code page gives U+FFFD.
// options: the AltBodyOptions bits above; links and alt texts need options
// above 0. suffix: written inside each <a ...> that kAltBodyHtmlLinks keeps.
//
// Never fails. The only early exit is a "<head" whose closing ">" is missing:
// result is empty and the trace says "ConvertHtmlToPlain returned early".
void ConvertHtmlToPlain(wbstring& result, const wbstring& source, int32_t codepage,
                        int32_t options, const wbstring& suffix);

}  // namespace kv
