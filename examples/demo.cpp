// A first look at Korvane's foundations: the counted strings that carry
// message text, code page conversion, and the address-list splitter.
#include <cstdio>
#include <vector>

#include "foundation/bstring.h"

using kv::bstring;
using kv::wbstring;

static void Print(const char* label, const bstring& s) {
    std::printf("%-28s [%.*s]\n", label, s.nSize, s.pData ? s.pData : "");
}

int main() {
    // A header value in ISO-8859-15 becomes wide text, then UTF-8.
    bstring latin9("Caf\xE9 \xA4 10");
    wbstring wide;
    wide.import_bstring(latin9, 28605);
    bstring utf8;
    wide.export_bstring(utf8, 65001);
    Print("ISO-8859-15 -> UTF-8:", utf8);

    // Shift-JIS through the same gate.
    bstring sjis("\x93\xFA\x96\x7B\x8C\xEA");
    wide.import_bstring(sjis, 932);
    wide.export_bstring(utf8, 65001);
    Print("Shift-JIS -> UTF-8:", utf8);

    // An address list whose display name holds a bare comma.
    bstring to("Doe, John <john@example.org>, \"Roe, Jane\" <jane@example.org>, ops@example.org");
    std::vector<bstring> items;
    to.split_list(items, ",", "\"\"()<>", false, true);
    std::printf("%zu recipients:\n", items.size());
    for (auto& item : items) Print("  -", item.trim());

    // Plain text and encoded words of a Subject.
    bstring subject("Re: =?utf-8?q?caf=C3=A9?= and =?iso-8859-1?b?6Q==?=");
    std::vector<bstring> pieces;
    subject.split_between(pieces, "=?", "?=");
    for (size_t i = 0; i < pieces.size(); ++i)
        Print(i % 2 ? "  encoded word:" : "  plain text:", pieces[i]);
    return 0;
}
