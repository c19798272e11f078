#include "codecs/plain_to_html.h"

#include <utility>

namespace kv {

void GetHtmlFromPlain(wbstring& result, const wbstring& text, const wbstring& title,
                      bool inner_body_only) {
    const int32_t text_size = text.nSize > 0 ? text.nSize : 0;
    const int32_t title_size = title.nSize > 0 ? title.nSize : 0;
    // Twice the input plus room for the frame, or more when the escapes need
    // it: a text of quotes grows sixfold, and appends past the reservation
    // would copy the whole result each time.
    int64_t escaped = 0;
    for (int32_t i = 0; i < text_size; ++i) {
        switch (text.pData[i]) {
            case u'"': escaped += 5; break;
            case u'&': escaped += 4; break;
            case u'<':
            case u'>': escaped += 3; break;
            default: break;
        }
    }
    int64_t reserve = (int64_t(text_size) + title_size) * 2 + 80;
    if (reserve < text_size + escaped + title_size + 80) reserve = text_size + escaped + title_size + 80;
    if (reserve > INT32_MAX - 1) reserve = INT32_MAX - 1;
    wbstring out;
    out.reserve(int32_t(reserve));

    if (!inner_body_only) {
        out.append(u"<html>\r\n<head>");
        if (title_size > 0) {
            out.append(u"<title>");
            out.append(title.pData, title_size);
            out.append(u"</title>");
        }
        out.append(u"</head>\r\n<body>");
    }
    if (text_size > 0) {
        out.append(u"<pre>\r\n");
        int32_t run = 0;
        for (int32_t i = 0; i < text_size; ++i) {
            const char16_t* escape = nullptr;
            switch (text.pData[i]) {
                case u'"': escape = u"&quot;"; break;
                case u'&': escape = u"&amp;"; break;
                case u'<': escape = u"&lt;"; break;
                case u'>': escape = u"&gt;"; break;
                default: continue;
            }
            if (i > run) out.append(text.pData + run, i - run);
            out.append(escape);
            run = i + 1;
        }
        if (text_size > run) out.append(text.pData + run, text_size - run);
        out.append(u"\r\n</pre>");
    }
    if (!inner_body_only) out.append(u"</body></html>");
    result = std::move(out);
}

}  // namespace kv
