#include "codecs/mimeword.h"

#include "codecs/charset.h"
#include "codecs/encoding.h"

namespace kv {

namespace {

bool IsAscii(const char* p, int32_t n) {
    for (int32_t i = 0; i < n; ++i)
        if (static_cast<unsigned char>(p[i]) >= 0x80) return false;
    return true;
}

bool IsWhite(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f'; }

// Plain text of an address value: copied when ASCII, else one word unfolded.
void WritePlain(bstring& out, const char* p, int32_t n, int32_t encoding, int32_t& column,
                const bstring& prefix) {
    if (n <= 0) return;
    if (IsAscii(p, n)) {
        out.append(p, n);
        column += n;
    } else {
        EncodeMimeWord(out, p, n, encoding, true, column, prefix, false);
    }
}

}  // namespace

bool IsAddressHeader(const bstring& name) {
    static const char* const kAddressHeaders[] = {
        "to", "cc", "from", "reply-to", "disposition-notification-to", "return-path"};
    for (const char* h : kAddressHeaders)
        if (name.equals(h)) return true;
    return false;
}

bstring& EncodeHeaderValue(const bstring& name, const wbstring& value, const bstring& charset,
                           int32_t codepage, int32_t encoding, bstring& result) {
    result.nSize = 0;
    bstring lower(name);
    lower.to_lower();
    bstring bytes;
    wbstring wide(value);
    wide.export_bstring(bytes, codepage < 0 ? 0 : codepage);
    bytes.replace("\r\n", " ");

    bool address = IsAddressHeader(lower);
    if (IsAscii(bytes.pData, bytes.nSize)) {
        if (!address || int64_t(name.nSize) + value.nSize + 2 < 998) {
            result.assign(bytes);
            return result;
        }
    }
    if (charset.nSize + name.nSize >= 61) return result;
    char letter;
    if (encoding == 2)
        letter = 'Q';
    else if (encoding == 3)
        letter = 'B';
    else
        return result;

    bstring prefix("=?");
    prefix.append(charset);
    prefix += '?';
    prefix += letter;
    prefix += '?';
    int32_t column = name.nSize + 2;
    bool fold_words = name.nSize > 0;
    const char* p = bytes.pData;
    const int32_t n = bytes.nSize;

    if (!address) {
        EncodeMimeWord(result, p, n, encoding, true, column, prefix, fold_words);
        return result;
    }

    result.reserve(n * 4 > 64 ? n * 4 : 64);
    int32_t start = 0, pos = 0;
    bool pending = false;
    while (pos < n) {
        char found = 0;
        int32_t at = bytes.find_any(pos, n, "<,'\"(", found);
        if (at < 0) break;
        if (found == ',') {
            WritePlain(result, p + start, at - start, encoding, column, prefix);
            pending = false;
            result += ',';
            column += 1;
            int32_t next = at + 1;
            while (next < n && IsWhite(p[next])) ++next;
            start = pos = next;
            if (next >= n - 1) continue;
            if (column < 71) {
                result += ' ';
                column += 1;
            } else {
                result.append("\r\n\t", 3);
                column = 1;
            }
        } else if (found == '<') {
            pending = true;
            int32_t close = bytes.find(at + 1, '>');
            if (close < 0) break;
            WritePlain(result, p + start, at - start, encoding, column, prefix);
            result.append(p + at, close - at + 1);
            column += close - at + 1;
            start = pos = close + 1;
        } else {
            // A quoted phrase or a comment. The plain text before its opener
            // is not written: this path only runs for values that need
            // encoding, and callers rely on its output as it stands.
            char closer = found == '(' ? ')' : found;
            if (at == n - 1) break;
            int32_t close = bytes.find(at + 1, closer);
            int32_t end = close >= 0 ? close + 1 : at + 1;
            if (IsAscii(p + at, end - at)) {
                result.append(p + at, end - at);
                column += end - at;
            } else {
                result += found;
                column += 1;
                EncodeMimeWord(result, p + at + 1, end - at - 2, encoding, true, column, prefix,
                               false);
                result += closer;
                column += 1;
            }
            start = pos = end;
        }
    }
    if (start < n) {
        if (pending)
            EncodeMimeWord(result, p + start, n - start, encoding, true, column, prefix,
                           fold_words);
        else
            result.append(p + start, n - start);
    }
    return result;
}

void EncodeMimeWord(bstring& out, const char* src, int32_t len, int32_t encoding, bool append,
                    int32_t& column, const bstring& prefix, bool fold) {
    if (!append) out.nSize = 0;
    if (fold && len >= 1 && column >= 68 - prefix.nSize) {
        out.append("\r\n\t", 3);
        column = 1;
    }
    if (encoding == 2)
        EncodeMimeWordQ(out, src, len, column, prefix, fold);
    else if (encoding == 3)
        EncodeMimeWordB(out, src, len, column, prefix, fold);
}

void EncodeMimeWordB(bstring& out, const char* src, int32_t len, int32_t& column,
                     const bstring& prefix, bool fold) {
    if (!src || len <= 0) return;
    const int32_t full = (72 - prefix.nSize) / 4 * 4;
    int32_t width = (72 - prefix.nSize - column) / 4 * 4;
    int64_t groups = (int64_t(len) + 2) / 3;
    int64_t words = fold && full > 0 ? groups * 4 / full + 2 : 1;
    int64_t want = int64_t(out.nSize) + groups * 4 + words * (prefix.nSize + 5);
    if (want < INT32_MAX) out.reserve(int32_t(want));
    const unsigned char* s = reinterpret_cast<const unsigned char*>(src);
    int32_t count = 0;
    for (int32_t i = 0; i < len; i += 3) {
        if (fold && count == width) {
            out.append("?=\r\n\t", 5);
            count = 0;
            width = full;
        }
        if (count == 0) out.append(prefix);
        uint32_t b0 = s[i], b1 = i + 1 < len ? s[i + 1] : 0, b2 = i + 2 < len ? s[i + 2] : 0;
        char quad[4] = {kBase64Alphabet[b0 >> 2], kBase64Alphabet[((b0 & 3) << 4) | (b1 >> 4)],
                        i + 1 < len ? kBase64Alphabet[((b1 & 15) << 2) | (b2 >> 6)] : '=',
                        i + 2 < len ? kBase64Alphabet[b2 & 63] : '='};
        out.append(quad, 4);
        count += 4;
    }
    out.append("?=", 2);
    if (fold)
        column = prefix.nSize + count + 2;
    else
        column += prefix.nSize + count + 2;
}

void EncodeMimeWordQ(bstring& out, const char* src, int32_t len, int32_t& column,
                     const bstring& prefix, bool fold) {
    if (!src || len <= 0) return;
    int64_t want = int64_t(out.nSize) + (int64_t(len) * 3 + prefix.nSize + 2) * 3 / 2;
    if (want < INT32_MAX) out.reserve(int32_t(want));
    out.append(prefix);
    column += prefix.nSize;
    for (int32_t i = 0; i < len; ++i) {
        unsigned char c = static_cast<unsigned char>(src[i]);
        if (!IsQuotedPrintableSafe(c) && c != '\t' && c != ' ') {
            char triplet[3];
            WriteQuotedTriplet(triplet, c);
            out.append(triplet, 3);
            column += 3;
            continue;
        }
        if (fold && column >= 74) {
            out.append("?=\r\n\t", 5);
            out.append(prefix);
            column = prefix.nSize + 1;
        }
        out += (c == ' ' || c == '\t') ? '_' : char(c);
        column += 1;
    }
    out.append("?=", 2);
    column += 2;
}

void MergeMimeWordChunks(std::vector<MimeWordChunk>& chunks) {
    MimeWordChunk* previous = nullptr;
    for (MimeWordChunk& chunk : chunks) {
        if (previous && previous->encoded == chunk.encoded &&
            previous->codepage == chunk.codepage) {
            previous->text.append(chunk.text);
            chunk.text.clear();
            continue;
        }
        previous = &chunk;
    }
}

wbstring& DecodeMimeWords(const bstring& src, wbstring& result, int32_t default_codepage) {
    result.nSize = 0;
    if (src.nSize <= 0) return result;
    std::vector<MimeWordChunk> chunks;
    auto add = [&](const char* p, int32_t n, bool encoded, int32_t codepage) {
        chunks.emplace_back();
        chunks.back().text.append(p, n);
        chunks.back().encoded = encoded;
        chunks.back().codepage = encoded ? codepage : -1;
    };
    const char* p = src.pData;
    int32_t pos = 0;
    while (pos < src.nSize) {
        int32_t open = src.find(pos, "=?", 2);
        if (open < 0) {
            add(p + pos, src.nSize - pos, false, -1);
            break;
        }
        int32_t q1 = src.find(open + 2, '?');
        int32_t q2 = q1 < 0 ? -1 : src.find(q1 + 1, '?');
        int32_t close = q2 < 0 ? -1 : src.find(q2 + 1, "?=", 2);
        char letter = q1 >= 0 && q1 + 1 < src.nSize ? char(p[q1 + 1] | 0x20) : 0;
        if (close < 0 || q2 != q1 + 2 || (letter != 'b' && letter != 'q')) {
            add(p + pos, open + 2 - pos, false, -1);
            pos = open + 2;
            continue;
        }
        bstring charset;
        charset.append(p + open + 2, q1 - open - 2);
        charset.strip_spaces();
        int32_t codepage = LookupCodepage(charset);
        bstring decoded;
        if (letter == 'q') {
            bstring payload(p + q2 + 1, close - q2 - 1);
            DecodeQuotedPrintable(decoded, payload, true);
        } else {
            DecodeBase64(decoded, src, q2 + 1, close);
        }
        // A gap of white space between words vanishes; the test stops at a NUL.
        bool only_white = true;
        for (int32_t i = pos; i < open && p[i]; ++i)
            if (!IsWhite(p[i])) {
                only_white = false;
                break;
            }
        if (!only_white) add(p + pos, open - pos, false, -1);
        chunks.emplace_back();
        decoded.give_to(chunks.back().text);
        chunks.back().encoded = true;
        chunks.back().codepage = codepage;
        pos = close + 2;
    }
    MergeMimeWordChunks(chunks);
    for (const MimeWordChunk& chunk : chunks) {
        if (chunk.text.nSize <= 0) continue;
        int32_t codepage = chunk.encoded ? chunk.codepage : default_codepage;
        if (!chunk.encoded && default_codepage == 65000) {
            // Text with an "@" past its start cannot be UTF-7.
            int32_t at = chunk.text.find('@');
            if (at > 1) codepage = 0;
        }
        result.append_import(chunk.text, codepage);
    }
    return result;
}

bool ParseExtendedValue(const bstring& value, bstring& text, int32_t& codepage) {
    text.nSize = 0;
    if (value.nSize <= 0) return false;
    int32_t first = value.find('\'');
    if (first < 0) {
        text.assign(value);
        return codepage >= 0;
    }
    int32_t second = value.find(first + 1, '\'');
    if (second < 0 || second == value.nSize - 1) {
        text.assign(value);
        return false;
    }
    bstring charset(value.pData, first);
    codepage = LookupCodepage(charset);
    text.append_range(value, second + 1);
    return true;
}

bstring& PercentDecode(const bstring& src, bstring& result) {
    result.nSize = 0;
    result.reserve(src.nSize);
    int32_t i = 0;
    while (i < src.nSize) {
        int32_t percent = src.find(i, '%');
        if (percent < 0) {
            result.append(src.pData + i, src.nSize - i);
            break;
        }
        result.append(src.pData + i, percent - i);
        if (percent >= src.nSize - 2) {
            result.append(src.pData + percent, src.nSize - percent);
            break;
        }
        bstring digits(src.pData + percent + 1, 2);
        int32_t value = digits.to_hex();
        if (value >= 1) {
            result += char(value & 0xFF);
            i = percent + 3;
        } else {
            result += '%';
            i = percent + 1;
        }
    }
    return result;
}

}  // namespace kv
