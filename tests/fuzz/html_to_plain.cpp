// HTML to plain text on arbitrary units, and plain text to HTML.
//
// Input: one byte choosing the options, one choosing the code page, then the
// text, one unit per byte, except that 0xFF takes the next two bytes as one
// UTF-16 unit (so surrogates, NUL and any character can appear).
//
// Beyond surviving: the output stays within a linear bound of the input,
// converting into the source itself gives the same text, text without "<" or
// "&" comes out with only its white space collapsed, and the HTML made from
// any text decodes back to it.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "codecs/html_to_plain.h"
#include "codecs/plain_to_html.h"

namespace {

void Check(bool ok) {
    if (!ok) std::abort();
}

bool IsWhite(char16_t c) {
    return c == u' ' || c == u'\t' || c == u'\r' || c == u'\n' || c == u'\f';
}

bool Same(const kv::wbstring& a, const kv::wbstring& b) {
    return a.nSize == b.nSize &&
           (a.nSize == 0 || std::memcmp(a.pData, b.pData, size_t(a.nSize) * sizeof(char16_t)) == 0);
}

const int32_t kOptions[] = {0, 1, 2, 4, 8, 12, 16, 20, 28, -1};
const int32_t kCodepages[] = {0, 1251, 1252, 65001, 932, 12345};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace kv;
    if (size < 2 || size > (1 << 16)) return 0;
    const int32_t options = kOptions[data[0] % (sizeof(kOptions) / sizeof(kOptions[0]))];
    const int32_t codepage = kCodepages[data[1] % (sizeof(kCodepages) / sizeof(kCodepages[0]))];
    const wbstring suffix((data[0] & 0x80) ? u"target=_blank" : u"");

    wbstring html;
    html.reserve(int32_t(size));
    for (size_t i = 2; i < size; ++i) {
        if (data[i] == 0xFF && i + 2 < size) {
            html.pData[html.nSize++] = char16_t(data[i + 1] | (data[i + 2] << 8));
            i += 2;
        } else {
            html.pData[html.nSize++] = char16_t(data[i]);
        }
    }
    const int32_t n = html.nSize;

    wbstring plain;
    ConvertHtmlToPlain(plain, html, codepage, options, suffix);
    // Block tags owe at most three " <br> " each; each link and image writes
    // its target or text once, with the suffix.
    Check(int64_t(plain.nSize) <= int64_t(n) * (8 + suffix.nSize) + 16);

    wbstring in_place(html);
    ConvertHtmlToPlain(in_place, in_place, codepage, options, suffix);
    Check(Same(plain, in_place));

    bool markup = false;
    for (int32_t i = 0; i < n; ++i) markup |= html.pData[i] == u'<' || html.pData[i] == u'&';
    if (!markup) {
        wbstring collapsed;
        collapsed.reserve(n);
        bool seen = false;
        for (int32_t i = 0; i < n;) {
            if (!IsWhite(html.pData[i])) {
                collapsed.pData[collapsed.nSize++] = html.pData[i++];
                seen = true;
                continue;
            }
            while (i < n && IsWhite(html.pData[i])) ++i;
            if (seen) collapsed.pData[collapsed.nSize++] = u' ';
        }
        Check(Same(plain, collapsed));
    }

    // The pre element of the HTML made from the text, unescaped, is the text.
    wbstring made;
    GetHtmlFromPlain(made, html, wbstring(), true);
    if (n == 0) {
        Check(made.nSize == 0);
        return 0;
    }
    static const char16_t kOpen[] = u"<pre>\r\n", kClose[] = u"\r\n</pre>";
    Check(made.nSize >= n + 14);
    Check(std::memcmp(made.pData, kOpen, 7 * sizeof(char16_t)) == 0);
    Check(std::memcmp(made.pData + made.nSize - 8, kClose, 8 * sizeof(char16_t)) == 0);
    struct Escape {
        const char16_t* text;
        int32_t length;
        char16_t c;
    };
    static const Escape kEscapes[] = {{u"&quot;", 6, u'"'}, {u"&amp;", 5, u'&'}, {u"&lt;", 4, u'<'}, {u"&gt;", 4, u'>'}};
    int32_t j = 0;
    for (int32_t i = 7; i < made.nSize - 8; ++j) {
        Check(j < n);
        const char16_t c = made.pData[i];
        Check(c != u'"' && c != u'<' && c != u'>');
        if (c != u'&') {
            Check(c == html.pData[j]);
            ++i;
            continue;
        }
        bool matched = false;
        for (const Escape& e : kEscapes) {
            if (i + e.length <= made.nSize &&
                std::memcmp(made.pData + i, e.text, size_t(e.length) * sizeof(char16_t)) == 0) {
                Check(html.pData[j] == e.c);
                i += e.length;
                matched = true;
                break;
            }
        }
        Check(matched);
    }
    Check(j == n);
    return 0;
}
