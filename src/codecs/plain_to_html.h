// Plain text to HTML: the text escaped and wrapped in a pre element.
#pragma once

#include "foundation/bstring.h"

namespace kv {

// Writes into result (emptied first; result may be text or title):
//
//   <html>\r\n<head>[<title>TITLE</title>]</head>\r\n<body>
//   <pre>\r\nTEXT\r\n</pre>
//   </body></html>
//
// The html, head and body lines only without inner_body_only; the pre lines
// only when text is not empty. In TEXT the four characters " & < > become
// &quot; &amp; &lt; &gt;; everything else, line breaks and non-ASCII
// included, stays. The title goes out as it stands, unescaped.
void GetHtmlFromPlain(wbstring& result, const wbstring& text, const wbstring& title,
                      bool inner_body_only);

}  // namespace kv
