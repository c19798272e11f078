#include "codecs/html_to_plain.h"

#include <cstring>

#include "codecs/charset.h"
#include "foundation/trace.h"
#include "platform/codepage.h"

namespace kv {

namespace {

// Entity names in the order they are tried. A name matches as a prefix of a
// longer word too ("&notin;" is "&not" and "in;"), and needs no ";". Values
// are bytes of the conversion's code page. With `capital`, a capital first
// letter in the source gives the value less 32 ("&Eacute;" is 201).
struct EntityName {
    const char16_t* name;
    int32_t length;
    unsigned char value;
    bool capital;
};

constexpr EntityName kEntities[] = {
    {u"quot", 4, '"', false},     {u"amp", 3, '&', false},      {u"lt", 2, '<', false},
    {u"gt", 2, '>', false},       {u"nbsp", 4, ' ', false},     {u"bull", 4, 149, false},
    {u"iexcl", 5, 161, false},    {u"cent", 4, 162, false},     {u"pound", 5, 163, false},
    {u"curren", 6, 164, false},   {u"yen", 3, 165, false},      {u"brvbar", 6, 166, false},
    {u"brkbar", 6, 166, false},   {u"sect", 4, 167, false},     {u"uml", 3, 168, false},
    {u"dir", 3, 168, false},      {u"copy", 4, 169, false},     {u"ordf", 4, 170, false},
    {u"laquo", 5, 171, false},    {u"not", 3, 172, false},      {u"shy", 3, '-', false},
    {u"reg", 3, 174, false},      {u"macr", 4, 175, false},     {u"hibar", 5, 175, false},
    {u"deg", 3, 176, false},      {u"plusmn", 6, 177, false},   {u"sup2", 4, 178, false},
    {u"sup3", 4, 179, false},     {u"acute", 5, 180, false},    {u"micro", 5, 181, false},
    {u"para", 4, 182, false},     {u"middot", 6, 183, false},   {u"cedil", 5, 184, false},
    {u"sup1", 4, 185, false},     {u"ordm", 4, 186, false},     {u"raquo", 5, 187, false},
    {u"frac14", 6, 188, false},   {u"frac12", 6, 189, false},   {u"frac34", 6, 190, false},
    {u"iquest", 6, 191, false},   {u"times", 5, 215, false},    {u"szlig", 5, 223, false},
    {u"agrave", 6, 224, true},    {u"aacute", 6, 225, true},    {u"acirc", 5, 226, true},
    {u"atilde", 6, 227, true},    {u"auml", 4, 228, true},      {u"aring", 5, 229, true},
    {u"aelig", 5, 230, true},     {u"ccedil", 6, 231, true},    {u"egrave", 6, 232, true},
    {u"eacute", 6, 233, true},    {u"ecirc", 5, 234, true},     {u"euml", 4, 235, true},
    {u"igrave", 6, 236, true},    {u"iacute", 6, 237, true},    {u"icirc", 5, 238, true},
    {u"iuml", 4, 239, true},      {u"eth", 3, 240, true},       {u"ntilde", 6, 241, true},
    {u"ograve", 6, 242, true},    {u"oacute", 6, 243, true},    {u"ocirc", 5, 244, true},
    {u"otilde", 6, 245, true},    {u"ouml", 4, 246, true},      {u"divide", 6, 247, false},
    {u"oslash", 6, 248, true},    {u"ugrave", 6, 249, true},    {u"uacute", 6, 250, true},
    {u"ucirc", 5, 251, true},     {u"uuml", 4, 252, true},      {u"yacute", 6, 253, true},
    {u"thorn", 5, 254, true},     {u"yuml", 4, 255, false},
};

// How far an unknown entity name may run to its ";".
constexpr int32_t kUnknownEntityReach = 10;

inline bool IsWhite(char16_t c) {
    return c == u' ' || c == u'\t' || c == u'\r' || c == u'\n' || c == u'\f';
}
inline bool IsLowerLetter(char16_t c) { return c >= u'a' && c <= u'z'; }
inline bool IsDigit(char16_t c) { return c >= u'0' && c <= u'9'; }
inline bool IsTagNameChar(char16_t c) { return IsLowerLetter(c) || IsDigit(c); }

// The lower-cased copy is only ever compared with ASCII (names, "<head",
// "--", ">") or compared ignoring case, and the text itself is copied from the
// source. So it lowers ASCII letters and the two characters whose lower case
// is ASCII (U+0130 and the Kelvin sign), and leaves the rest as they are.
inline char16_t LowerForMatching(char16_t c) {
    if (c < 0x80) return (c >= u'A' && c <= u'Z') ? char16_t(c + 32) : c;
    if (c == u'\u0130') return u'i';
    if (c == u'\u212A') return u'k';
    return c;
}

// Byte value to character in one code page, as a one-byte mbtowc in that
// code page's locale would give it. Built on first use: most texts hold no
// entity at all.
class ByteCharacters {
public:
    explicit ByteCharacters(int32_t codepage) : codepage_(codepage) {}

    char16_t operator()(unsigned char byte) {
        if (!ready_) Build();
        return table_[byte];
    }

private:
    void Build() {
        ready_ = true;
        // No code page, or one the locale cannot be set to: the locale in
        // force maps each byte to itself.
        const bool identity = codepage_ <= 0 || !platform::IsValidCodePage(codepage_);
        for (int b = 0; b < 256; ++b) {
            table_[b] = char16_t(b);
            if (identity) continue;
            const char byte = static_cast<char>(b);
            char16_t out[2] = {0, 0};
            int written = platform::MultiByteToWideChar(codepage_, 0, &byte, 1, out, 2);
            table_[b] = written == 1 ? out[0] : u'\xFFFD';
        }
    }

    int32_t codepage_;
    bool ready_ = false;
    char16_t table_[256] = {};
};

// The growing result: raw writes into a buffer reserved once up front.
class Output {
public:
    explicit Output(int32_t reserve) { text_.reserve(reserve); }

    void Put(const char16_t* data, int32_t n) {
        if (n <= 0) return;
        Ensure(n);
        std::memcpy(text_.pData + text_.nSize, data, size_t(n) * sizeof(char16_t));
        text_.nSize += n;
    }
    void Put(const char16_t* literal) { Put(literal, int32_t(std::char_traits<char16_t>::length(literal))); }
    void Put(const wbstring& s) { Put(s.pData, s.nSize); }
    void Put(char16_t c) {
        Ensure(1);
        text_.pData[text_.nSize++] = c;
    }
    // Takes back the blank that a run of white space wrote.
    void TakeBack() {
        if (text_.nSize > 0) --text_.nSize;
    }
    void GiveTo(wbstring& result) {
        result = std::move(text_);
    }

private:
    void Ensure(int32_t n) {
        const int64_t need = int64_t(text_.nSize) + n;
        if (need <= text_.nCapacity) return;
        int64_t grown = int64_t(text_.nCapacity) * 2;
        if (grown < need) grown = need;
        if (grown > INT32_MAX - 1) grown = INT32_MAX - 1;
        text_.reserve_keep(int32_t(grown), text_.nSize);
    }

    wbstring text_;
};

bool IsBlockTag(const char16_t* name, int32_t n) {
    switch (n) {
        case 1:
            return name[0] == u'p';
        case 2:
            return (name[0] == u't' && name[1] == u'r') || (name[0] == u'l' && name[1] == u'i') ||
                   (name[0] == u'u' && name[1] == u'l') || (name[0] == u'o' && name[1] == u'l');
        case 3:
            return name[0] == u'd' && name[1] == u'i' && name[2] == u'v';
        case 5:
            return std::memcmp(name, u"table", 5 * sizeof(char16_t)) == 0;
        default:
            return false;
    }
}

// One conversion: the walk over the lower-cased copy, the copy of text runs
// from the source at the same offsets.
class HtmlToPlain {
public:
    HtmlToPlain(const wbstring& source, int32_t codepage, int32_t options, const wbstring& suffix)
        : src_(source.pData),
          n_(source.nSize > 0 ? source.nSize : 0),
          options_(options),
          suffix_(suffix),
          bytes_(codepage) {
        lc_.reserve(n_);
        for (int32_t i = 0; i < n_; ++i) lc_.pData[i] = LowerForMatching(source.pData[i]);
        lc_.nSize = n_;
        lc_data_ = lc_.pData;
    }

    // False for the early exit of a head without its end.
    bool FindStart() {
        int32_t head = -1;
        for (int32_t i = 0; i + 5 <= n_; ++i) {
            if (lc_data_[i] == u'<' && lc_data_[i + 1] == u'h' && lc_data_[i + 2] == u'e' &&
                lc_data_[i + 3] == u'a' && lc_data_[i + 4] == u'd') {
                head = i;
                break;
            }
        }
        if (head < 0) return true;
        const int32_t head_end = lc_.find(head + 5, u"</head");
        const int32_t close = head_end >= 0 ? lc_.find(head_end + 6, u'>') : lc_.find(head + 5, u'>');
        if (close < 0) return false;
        start_ = close + 1;
        return true;
    }

    int32_t Start() const { return start_; }

    void Run(Output& out) {
        out_ = &out;
        read_ = copy_ = start_;
        for (;;) {
            if (read_ >= n_) {
                StepT(true);
                break;
            }
            const char16_t c = lc_data_[read_];
            if (!in_tag_) {
                if (saw_lt_) {
                    if (IsLowerLetter(c) || c == u'!' || c == u'?' || c == u'/') {
                        in_tag_ = true;
                        saw_lt_ = false;
                        tag_def_start_ = read_ - 1;
                        tag_name_start_ = c == u'/' ? read_ + 1 : read_;
                        opening_tag_ = c != u'/';
                        maybe_comment_ = c == u'!';
                        in_comment_ = false;
                    } else {
                        saw_lt_ = false;
                        MarkText();
                    }
                } else if (c == u'<') {
                    saw_lt_ = true;
                }
            } else if (in_comment_) {
                // "<!-->" ends too: the dashes of the opening count.
                if (c == u'>' && lc_data_[read_ - 1] == u'-' && lc_data_[read_ - 2] == u'-') {
                    EndTag();
                } else {
                    ++read_;
                    while (read_ < n_ && lc_data_[read_] != u'>') ++read_;
                }
                continue;
            } else if (maybe_comment_ && c == u'-' && read_ + 1 < n_ && lc_data_[read_ + 1] == u'-') {
                maybe_comment_ = false;
                in_comment_ = true;
                read_ += 2;
                continue;
            } else if (c == u'>') {
                EndTag();
                continue;
            }
            StepT(false);
        }
        out.Put(src_ + copy_, n_ - copy_);
        out_ = nullptr;
    }

private:
    // Plain text was written: white space counts again and the next block
    // tag owes two breaks.
    void MarkText() {
        space_pending_ = false;
        text_seen_ = true;
        pending_breaks_ = 2;
        last_block_ = false;
    }

    void CopyUpTo(int32_t end) {
        out_->Put(src_ + copy_, end - copy_);
    }

    // The ">" at read_ ends the tag that began at tag_def_start_.
    void EndTag() {
        const int32_t close = read_;
        in_tag_ = false;
        if (options_ > 0 && (options_ & (kAltBodyKeepLinks | kAltBodyImageAlt))) ReadAttributes(close);
        CopyUpTo(tag_def_start_);
        copy_ = close + 1;

        int32_t name_end = tag_name_start_;
        while (name_end < close && IsTagNameChar(lc_data_[name_end])) ++name_end;
        const char16_t* name = lc_data_ + tag_name_start_;
        const int32_t name_length = name_end - tag_name_start_;

        if (opening_tag_ && name_length == 2 && name[0] == u'b' && name[1] == u'r') {
            if (space_pending_) {
                space_pending_ = false;
                out_->TakeBack();
            }
            out_->Put(u"\r\n", 2);
            if (pending_breaks_ > 0) --pending_breaks_;
            last_block_ = false;
            text_seen_ = false;
        } else if (IsBlockTag(name, name_length)) {
            if (space_pending_) {
                space_pending_ = false;
                out_->TakeBack();
            }
            if (name_length == 1) {
                if (last_block_) ++pending_breaks_;
                last_block_ = false;
            } else {
                pending_breaks_ /= 2;
                last_block_ = true;
            }
            for (int32_t i = 0; i < pending_breaks_; ++i) {
                if (options_ & kAltBodyHtmlLinks)
                    out_->Put(u" <br> ", 6);
                else
                    out_->Put(u"\r\n", 2);
            }
            pending_breaks_ = 0;
            text_seen_ = false;
        } else {
            last_block_ = false;
        }
        read_ = close + 1;
    }

    // Whether the tag's first token can be "a", "/a" or "img": the token
    // begins right behind the "<" and ends at white space, "=" or the ">".
    // Most tags are none of these and need no tokens at all.
    bool MayBeLinkOrImage(int32_t close) const {
        const char16_t* p = lc_data_ + tag_def_start_ + 1;
        const int32_t length = close - tag_def_start_ - 1;
        int32_t name = 0;
        if (length >= 1 && p[0] == u'a') {
            name = 1;
        } else if (length >= 2 && p[0] == u'/' && p[1] == u'a') {
            name = 2;
        } else if (length >= 3 && p[0] == u'i' && p[1] == u'm' && p[2] == u'g') {
            name = 3;
        } else {
            return false;
        }
        return name == length || IsWhite(p[name]) || p[name] == u'=';
    }

    void ReadAttributes(int32_t close) {
        if (!MayBeLinkOrImage(close)) return;
        tag_text_.assign(src_ + tag_def_start_ + 1, close - tag_def_start_ - 1);
        TokenizeTagAttributes(tag_text_, tokens_);
        if (tokens_.empty()) return;
        const wbstring& first = tokens_[0];
        if (options_ & kAltBodyKeepLinks) {
            if (first.equals(u"/a")) {
                link_pending_ = false;
                anchor_closing_ = true;
                a_content_end_ = tag_def_start_;
            } else if (tokens_.size() >= 4 && first.equals(u"a")) {
                GetTagAttribute(tokens_, u"href", href_);
                link_pending_ = true;
                anchor_closing_ = false;
                a_content_start_ = close + 1;
            }
        }
        if ((options_ & kAltBodyImageAlt) && tokens_.size() >= 4 && first.equals(u"img"))
            GetTagAttribute(tokens_, u"alt", alt_);
    }

    // What runs for each character outside the paths that step on at once,
    // and once more at the end of the text.
    void StepT(bool at_end) {
        if (href_.nSize > 0 && link_pending_ && (options_ & kAltBodyHtmlLinks)) {
            out_->Put(u"<a href=", 8);
            const char16_t quote = href_.find(u'"') >= 0 ? u'\'' : u'"';
            out_->Put(quote);
            out_->Put(href_);
            out_->Put(quote);
            if (suffix_.nSize > 0) {
                out_->Put(u' ');
                out_->Put(suffix_);
            }
            out_->Put(u'>');
            link_pending_ = false;
        }
        if (alt_.nSize > 0) {
            out_->Put(alt_);
            alt_.nSize = 0;
            space_pending_ = false;
            text_seen_ = true;
            pending_breaks_ = 2;
        }
        if (href_.nSize > 0 && anchor_closing_) {
            if (options_ & kAltBodyHtmlLinks) {
                out_->Put(u"</a>", 4);
            } else if (!LinkTextIsTarget()) {
                out_->Put(u" <", 2);
                out_->Put(href_);
                out_->Put(u"> ", 2);
                MarkText();
            }
            href_.nSize = 0;
            anchor_closing_ = false;
        }
        if (at_end) return;
        // From here on the steps above stay idle until the next tag ends:
        // each of them disarms itself when it writes.
        if (saw_lt_) {
            ++read_;
            return;
        }
        if (in_tag_) {
            // Nothing inside a tag matters but its ">" and, while it may
            // still become a comment, a "-".
            ++read_;
            if (maybe_comment_) {
                while (read_ < n_ && lc_data_[read_] != u'>' && lc_data_[read_] != u'-') ++read_;
            } else {
                while (read_ < n_ && lc_data_[read_] != u'>') ++read_;
            }
            return;
        }

        const char16_t c = lc_data_[read_];
        if (c != u'&' || (options_ & kAltBodyHtmlLinks)) {
            int32_t run_end = read_;
            while (run_end < n_ && IsWhite(lc_data_[run_end])) ++run_end;
            if (run_end == read_) {
                // A run of plain text: every character of it would do the
                // same, so it is passed over at once.
                MarkText();
                ++read_;
                const bool amp_is_text = (options_ & kAltBodyHtmlLinks) != 0;
                while (read_ < n_) {
                    const char16_t t = lc_data_[read_];
                    if (t == u'<' || IsWhite(t) || (t == u'&' && !amp_is_text)) break;
                    ++read_;
                }
                return;
            }
            if (text_seen_) space_pending_ = true;
            CopyUpTo(read_);
            copy_ = read_ = run_end;
            if (space_pending_) out_->Put(u' ');
            return;
        }
        if (n_ - read_ < 3) {
            MarkText();
            ++read_;
            return;
        }
        int32_t end = 0;
        const char16_t character = DecodeEntity(end);
        if (end < n_ && lc_data_[end] == u';') ++end;
        MarkText();
        CopyUpTo(read_);
        copy_ = read_ = end;
        out_->Put(character);
    }

    // The link's text, trimmed of blanks and tabs, equals its target.
    bool LinkTextIsTarget() const {
        int32_t a = a_content_start_, b = a_content_end_;
        if (b > n_) b = n_;
        if (b < a) b = a;
        while (a < b && (lc_data_[a] == u' ' || lc_data_[a] == u'\t')) ++a;
        while (b > a && (lc_data_[b - 1] == u' ' || lc_data_[b - 1] == u'\t')) --b;
        if (b - a != href_.nSize) return false;
        wbstring text;
        text.borrow(lc_data_ + a, b - a);
        return text.equals(href_);
    }

    // The entity at read_ (an "&" with at least two characters behind it):
    // its character, and in end the offset behind it (before any ";").
    char16_t DecodeEntity(int32_t& end) {
        const int32_t first = read_ + 1;
        if (lc_data_[first] == u'#') {
            // The number by atoi's rules; its end is the first character
            // behind the "#" that is no digit, so "&#x41;" is 0 and "x41;".
            wbstring digits;
            digits.borrow(lc_data_ + first + 1, n_ - first - 1);
            const int32_t value = digits.to_int();
            end = first + 1;
            while (end < n_ && IsDigit(lc_data_[end])) ++end;
            if (value >= 256) return char16_t(uint32_t(value) & 0xFFFF);
            return bytes_(static_cast<unsigned char>(value));
        }
        const int32_t left = n_ - first;
        for (const EntityName& entity : kEntities) {
            if (entity.length > left || lc_data_[first] != entity.name[0] ||
                std::memcmp(lc_data_ + first, entity.name, size_t(entity.length) * sizeof(char16_t)) != 0)
                continue;
            end = first + entity.length;
            unsigned char value = entity.value;
            if (entity.capital && src_[first] >= u'A' && src_[first] <= u'Z') value -= 32;
            return bytes_(value);
        }
        // Unknown: "?" for the whole "&name;" when the ";" is near, else for
        // the "&" alone.
        end = first;
        const int32_t reach = left < kUnknownEntityReach ? left : kUnknownEntityReach;
        for (int32_t i = first; i < first + reach; ++i) {
            if (lc_data_[i] == u';') {
                end = i + 1;
                break;
            }
        }
        return bytes_('?');
    }

    const char16_t* src_;
    const int32_t n_;
    const int32_t options_;
    const wbstring& suffix_;
    ByteCharacters bytes_;
    wbstring lc_;
    const char16_t* lc_data_ = nullptr;
    Output* out_ = nullptr;

    int32_t start_ = 0;
    int32_t read_ = 0;
    int32_t copy_ = 0;
    bool saw_lt_ = false;
    bool in_tag_ = false;
    bool opening_tag_ = false;
    int32_t tag_def_start_ = 0;
    int32_t tag_name_start_ = 0;
    bool maybe_comment_ = false;
    bool in_comment_ = false;
    bool text_seen_ = false;
    bool space_pending_ = false;
    int32_t pending_breaks_ = 0;
    bool last_block_ = false;
    bool link_pending_ = false;
    bool anchor_closing_ = false;
    int32_t a_content_start_ = 0;
    int32_t a_content_end_ = 0;
    wbstring tag_text_;
    wbstring_vector tokens_;
    wbstring href_;
    wbstring alt_;
};

}  // namespace

void ConvertHtmlToPlain(wbstring& result, const wbstring& source, int32_t codepage,
                        int32_t options, const wbstring& suffix) {
    // The walk reads the source to the end while writing the result.
    wbstring own_source, own_suffix;
    const wbstring* src = &source;
    const wbstring* sfx = &suffix;
    if (&result == &source) {
        own_source.assign(source.pData, source.nSize > 0 ? source.nSize : 0);
        src = &own_source;
    }
    if (&result == &suffix) {
        own_suffix.assign(suffix.pData, suffix.nSize > 0 ? suffix.nSize : 0);
        sfx = &own_suffix;
    }

    HtmlToPlain walk(*src, codepage, options, *sfx);
    if (!walk.FindStart()) {
        result.nSize = 0;
        Trace("ConvertHtmlToPlain returned early");
        return;
    }
    const int32_t remaining = (src->nSize > 0 ? src->nSize : 0) - walk.Start();
    const int32_t reserve = int32_t(int64_t(remaining) * 4 / 3);
    TraceBegin();
    TraceAppend("ConvertHtmlToPlain will reserve ");
    TraceAppendInt(reserve);
    Trace();
    Output out(reserve);
    Trace("ConvertHtmlToPlain reserved");
    walk.Run(out);
    out.GiveTo(result);
}

}  // namespace kv
