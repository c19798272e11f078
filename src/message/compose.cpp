// Composition: the decoded side of a message to its raw MIME text, in one
// pass of appends into a buffer sized beforehand.
//
// Header order: Return-Path lines, MIME-Version, From, Reply-To, To, CC,
// Subject, Content-Type, Content-Transfer-Encoding, X-Mailer, Date,
// Message-ID, then custom headers in collection order.
#include <cinttypes>
#include <cstdio>

#include "codecs/charset.h"
#include "codecs/dates.h"
#include "codecs/encoding.h"
#include "codecs/mediatype.h"
#include "codecs/mimeword.h"
#include "foundation/trace.h"
#include "message/message.h"
#include "platform/random.h"

namespace kv {

namespace {

constexpr const char* MIME_BOUNDARY_PREFIX = "----=_NextPart_00";

bool IsAscii(const bstring& s) {
    for (int32_t i = 0; i < s.nSize; ++i)
        if (static_cast<unsigned char>(s.pData[i]) >= 0x80) return false;
    return true;
}

// "MessageToRawBody.1 m_bsRawBody.nSize=%d, m_bsRawBody.nCapacity=%d, m_bsRawBody.pData=%x"
void TraceBuffer(const char* step, const bstring& raw) {
    char line[160];
    std::snprintf(line, sizeof line,
                  "%s m_bsRawBody.nSize=%d, m_bsRawBody.nCapacity=%d, m_bsRawBody.pData=%" PRIxPTR,
                  step, raw.nSize, raw.nCapacity, reinterpret_cast<uintptr_t>(raw.pData));
    Trace(line);
}

void TraceSizes(const bstring& raw) {
    TraceBegin();
    TraceAppend("m_bsRawBody.nSize=");
    TraceAppendInt(raw.nSize);
    TraceAppend(" with m_bsRawBody.nCapacity=");
    TraceAppendInt(raw.nCapacity);
    TraceAppend(raw.pData ? " m_bsRawBody.pData is not NULL" : " m_bsRawBody.pData is NULL");
    Trace();
}

// Four upper-case hexadecimal digits of one draw.
void AppendGroup(bstring& out) {
    char group[8];
    std::snprintf(group, sizeof group, "%04X", unsigned(platform::Rand()));
    out.append(group, 4);
}

}  // namespace

const char* CMessage::EncodingText(int32_t encoding) const {
    switch (encoding) {
        case 1:
            return m_bEnable8bitEncoding ? "8bit" : "7bit";
        case 2:
            return "quoted-printable";
        case 3:
            return "base64";
        default:
            return "";
    }
}

void CMessage::AppendBoundary(int32_t level) {
    m_bsRawBody.append(MIME_BOUNDARY_PREFIX);
    m_bsRawBody += char('0' + level);
    m_bsRawBody.append(m_bsBoundaryTail);
}

void CMessage::MessageToRawBody() {
    TraceBuffer("MessageToRawBody.1", m_bsRawBody);
    if (m_bMinimalRebuild) {
        ComposeHeadersMinimal();
        Trace("MessageToRawBody.2a");
        Trace("MessageToRawBody.3");
        return;
    }

    // One random tail for every boundary of this rebuild: "_XXXX_XXXXXXXX.XXXXXXXX".
    m_bsBoundaryTail.nSize = 0;
    m_bsBoundaryTail += '_';
    AppendGroup(m_bsBoundaryTail);
    m_bsBoundaryTail += '_';
    AppendGroup(m_bsBoundaryTail);
    AppendGroup(m_bsBoundaryTail);
    m_bsBoundaryTail += '.';
    AppendGroup(m_bsBoundaryTail);
    AppendGroup(m_bsBoundaryTail);

    // The shape only ever grows: a message that lost its attachments stays multipart.
    if (m_wsAltBodyText.nSize > 0 && m_nBodyFormat != 0) m_bAlternative = true;
    if (m_wsSpecialBodyText.nSize > 0) m_bAlternative = true;
    if (m_bAlternative || m_pAttachments->CountInternal() > 0) m_bMultipart = true;
    for (CAttachment* a : m_pAttachments->m_coll) (a->m_bInline ? m_bRelated : m_bMixed) = true;
    m_nNesting = int32_t(m_bMixed) + int32_t(m_bRelated) + int32_t(m_bAlternative);

    int64_t size = int64_t(m_wsBodyText.nSize) + m_wsAltBodyText.nSize +
                   m_wsSpecialBodyText.nSize + 4096;
    for (CAttachment* a : m_pAttachments->m_coll) size += a->m_bsContent.nSize;
    TraceBuffer("MessageToRawBody.2", m_bsRawBody);
    size = size * 3 / 2;
    m_bsRawBody.nSize = 0;
    if (size < INT32_MAX - 16) m_bsRawBody.reserve(int32_t(size));
    TraceSizes(m_bsRawBody);

    int32_t codepage = ComposeHeaders();
    int32_t level = 0;
    m_bsRawBody.append("\r\n", 2);
    if (m_bMultipart) {
        level = 1;
        m_bsRawBody.append("\r\n--", 4);
        m_bsRawBody.append(MIME_BOUNDARY_PREFIX);
        Trace("MIME_BOUNDARY_PREFIX added");
        TraceSizes(m_bsRawBody);
        m_bsRawBody += char('0' + level);
        m_bsRawBody.append(m_bsBoundaryTail);
        if (!m_bPreformatted) {
            m_bsRawBody.append("\r\n", 2);
            if (m_nNesting > 1) {
                level = 2;
                AppendEntityHeaders(m_bMixed != m_bRelated ? kFormatAlternative : kFormatRelated, 0,
                                    level);
                m_bsRawBody.append("\r\n--", 4);
                AppendBoundary(level);
                m_bsRawBody.append("\r\n", 2);
            }
            if (m_nNesting > 2) {
                level = 3;
                AppendEntityHeaders(kFormatAlternative, 0, level);
                m_bsRawBody.append("\r\n--", 4);
                AppendBoundary(level);
                m_bsRawBody.append("\r\n", 2);
            }
            if (m_wsAltBodyText.nSize > 0 && m_nBodyFormat != 0)
                AppendEntityHeaders(kFormatPlain, m_nAltBodyEncoding, level);
            else
                AppendEntityHeaders(m_nBodyFormat, m_nBodyEncoding, level);
        }
    }
    m_bsRawBody.append("\r\n", 2);

    if (m_bMultipart && m_nBodyFormat != 0 && m_wsAltBodyText.nSize > 0) {
        EncodeBody(m_bsRawBody, m_wsAltBodyText, m_nAltBodyEncoding, true, codepage);
        m_bsRawBody.append("\r\n--", 4);
        AppendBoundary(level);
        m_bsRawBody.append("\r\n", 2);
        AppendEntityHeaders(m_nBodyFormat, m_nBodyEncoding, level);
        m_bsRawBody.append("\r\n", 2);
    }
    if (m_bPreformatted) {
        bstring entity;
        m_wsBodyText.export_bstring(entity, 1252);
        m_bsRawBody.append(entity);
    } else {
        EncodeBody(m_bsRawBody, m_wsBodyText, m_nBodyEncoding, true, codepage);
        if (m_wsSpecialBodyText.nSize > 0) {
            m_bsRawBody.append("\r\n--", 4);
            AppendBoundary(level);
            m_bsRawBody.append("\r\n", 2);
            AppendSpecialHeaders(m_bsSpecialBodyContentType, m_bsSpecialBodyHeaders,
                                 m_nBodyEncoding);
            m_bsRawBody.append("\r\n", 2);
            EncodeBody(m_bsRawBody, m_wsSpecialBodyText, m_nBodyEncoding, true, codepage);
        }
    }
    if (m_bAlternative) {
        m_bsRawBody.append("\r\n--", 4);
        AppendBoundary(level);
        m_bsRawBody.append("--", 2);
        --level;
    }
    if (m_bRelated) {
        AppendAttachments(true, level, codepage);
        --level;
    }
    if (m_bMixed) {
        AppendAttachments(false, level, codepage);
        --level;
    }
    // An explicit Date or Message-ID lives through one rebuild.
    m_bMessageIdSet = false;
    m_bDateSet = false;
    Trace("MessageToRawBody.3");
}

void CMessage::PrepareHeader(const char* name, const wbstring& value, int32_t codepage) {
    CMIMEHeader* record = FindHeader(name);
    if (!record && value.nSize > 0) {
        record = CMIMEHeader::New();
        record->m_bStandard = true;
        record->m_bsKey.assign(name);
        record->m_wsValue.assign(value);
        m_pHeaders->Add(record);
    }
    if (!record) return;
    // A value a parse brought in stays as it was read.
    if (record->m_bsWireValue.nSize > 0 &&
        (m_bsCharset.nSize <= 0 || IsAscii(record->m_bsWireValue) || m_bMinimalRebuild))
        return;
    if (!m_bAutoEncodeHeaders || m_bsCharset.nSize <= 0) {
        wbstring copy(value);
        copy.export_bstring(record->m_bsWireValue, codepage);
    } else {
        EncodeHeaderValue(bstring(name), value, m_bsCharset, codepage, 2, record->m_bsWireValue);
    }
}

void CMessage::PrepareStandardHeaders(int32_t codepage) {
    PrepareHeader("From", m_wsFromAddr, codepage);
    PrepareHeader("Reply-To", m_wsReplyToAddr, codepage);
    PrepareHeader("To", m_wsToAddr, codepage);
    PrepareHeader("CC", m_wsCCAddr, codepage);
    PrepareHeader("BCC", m_wsBCCAddr, codepage);
    PrepareHeader("Subject", m_wsSubject, codepage);
}

int32_t CMessage::ComposeHeaders() {
    bstring content_type(128);
    int32_t codepage = LookupCodepage(m_bsCharset);
    if (m_bMultipart) {
        if (m_bsMultipartContentType.nSize > 0) {
            content_type.append(m_bsMultipartContentType);
            if (m_bsMultipartExtraParams.nSize > 0) {
                content_type.append(";\r\n\t");
                content_type.append(m_bsMultipartExtraParams);
            }
        } else {
            content_type.append("multipart/");
            content_type.append(m_bMixed       ? "mixed"
                                : m_bRelated   ? "related"
                                : m_bAlternative ? "alternative"
                                                 : "parallel");
        }
    } else {
        GetFormatMediaType(content_type, m_nBodyFormat);
        if (m_bsCharset.nSize > 0) {
            content_type.append("; charset=\"");
            content_type.append(m_bsCharset);
            content_type += '"';
        }
    }
    if (m_bPreformatted) content_type.assign(m_bsPreformattedContentType);
    if (m_bMultipart) {
        if (m_bRelated && !m_bMixed) {
            content_type.append(";\r\n\ttype=\"");
            bstring type;
            GetFormatMediaType(type, m_bAlternative ? kFormatAlternative : m_nBodyFormat);
            content_type.append(type);
            content_type += '"';
        }
        content_type.append(";\r\n\tboundary=\"");
        content_type.append(MIME_BOUNDARY_PREFIX);
        content_type += '1';
        content_type.append(m_bsBoundaryTail);
        content_type += '"';
    }

    m_bsRawBody.nSize = 0;
    PrepareStandardHeaders(codepage);
    if (m_bsReturnPath.nSize > 0) {
        std::vector<bstring> lines;
        m_bsReturnPath.split_str(lines, "\r\n");
        for (const bstring& line : lines) {
            m_bsRawBody.append("Return-Path: ");
            m_bsRawBody.append(line);
            m_bsRawBody.append("\r\n", 2);
        }
    }
    m_bsRawBody.append("MIME-Version: 1.0");
    struct Line {
        const wbstring& field;
        const char* label;
        const char* record;
    } lines[] = {
        {m_wsFromAddr, "\r\nFrom: ", "from"},
        {m_wsReplyToAddr, "\r\nReply-To: ", "reply-to"},
        {m_wsToAddr, "\r\nTo: ", "to"},
        {m_wsCCAddr, "\r\nCC: ", "cc"},
        {m_wsSubject, "\r\nSubject: ", "subject"},
    };
    bstring wire;
    for (const Line& line : lines) {
        if (line.field.nSize <= 0) continue;
        m_bsRawBody.append(line.label);
        m_bsRawBody.append(m_pHeaders->GetWire(wire, line.record));
    }
    m_bsRawBody.append("\r\nContent-Type: ");
    m_bsRawBody.append(content_type);
    if (!m_bMultipart) {
        const char* encoding = EncodingText(m_nBodyEncoding);
        if (*encoding) {
            m_bsRawBody.append("\r\nContent-Transfer-Encoding: ");
            m_bsRawBody.append(encoding);
        }
    }
    if (m_bsXMailer.nSize > 0) {
        m_bsRawBody.append("\r\nX-Mailer: ");
        m_bsRawBody.append(m_bsXMailer);
    }
    if (!m_bDateSet) FormatCurrentDate(m_bsDate);
    if (m_bsDate.nSize > 0) {
        m_bsRawBody.append("\r\nDate: ");
        m_bsRawBody.append(m_bsDate);
    }
    if (!m_bMessageIdSet) {
        m_bsMessageId.reserve(64);
        m_bsMessageId.nSize = 0;
        m_bsMessageId += '<';
        char number[32];
        std::snprintf(number, sizeof number, "%u", platform::ProcessId());
        m_bsMessageId.append(number);
        std::snprintf(number, sizeof number, "%" PRIuPTR, reinterpret_cast<uintptr_t>(this));
        m_bsMessageId.append(number);
        m_bsMessageId.append_int(platform::Rand());
        m_bsMessageId.append_int(platform::Rand());
        m_bsMessageId += '@';
        char host[260];
        const char* name = platform::HostName(host, sizeof host);
        m_bsMessageId.append(*name ? name : "localhost");
        m_bsMessageId += '>';
    }
    m_bsRawBody.append("\r\nMessage-ID: ");
    m_bsRawBody.append(m_bsMessageId);

    bool encode = m_bAutoEncodeHeaders && m_bsCharset.nSize > 0;
    for (CMIMEHeader* record : m_pHeaders->m_coll) {
        if (record->m_bStandard) continue;
        m_bsRawBody.append("\r\n", 2);
        m_bsRawBody.append(record->m_bsKey);
        m_bsRawBody.append(": ", 2);
        if (encode) {
            EncodeHeaderValue(record->m_bsKey, record->m_wsValue, m_bsCharset, codepage, 2, wire);
        } else {
            wbstring copy(record->m_wsValue);
            copy.export_bstring(wire, codepage);
        }
        m_bsRawBody.append(wire);
    }
    return codepage;
}

// Rewrites only the header block; the body bytes stay as they are.
void CMessage::ComposeHeadersMinimal() {
    int32_t codepage = LookupCodepage(m_bsCharset);
    PrepareStandardHeaders(codepage);
    bstring block(128);
    auto line_break = [&] {
        if (block.nSize > 0) block.append("\r\n", 2);
    };
    std::vector<bstring> received;
    m_bsReceived.split_str(received, "\r\n");
    for (const bstring& line : received) {
        line_break();
        block.append("Received: ");
        block.append(line);
    }
    for (CMIMEHeader* record : m_pHeaders->m_coll) {
        line_break();
        block.append(record->m_bsKey);
        block.append(": ", 2);
        if (record->m_bsWireValue.nSize > 0) {
            block.append(record->m_bsWireValue);
        } else {
            bstring bytes;
            wbstring copy(record->m_wsValue);
            copy.export_bstring(bytes, codepage);
            block.append(bytes);
        }
    }
    bstring copy(m_bsRawBody);
    int32_t end = copy.find("\r\n\r\n");
    m_bsRawBody.assign(block);
    if (end >= 0) m_bsRawBody.append_range(copy, end);
}

void CMessage::AppendEntityHeaders(int32_t type, int32_t encoding, int32_t level) {
    bstring value(128);
    GetFormatMediaType(value, type);
    bool multipart = IsMultipartFormat(type);
    if (multipart) {
        if (type == kFormatRelated)
            value.append(m_bAlternative ? ";\r\n\ttype=\"multipart/alternative\""
                                        : ";\r\n\ttype=\"text/html\"");
        value.append(";\r\n\tboundary=\"");
        value.append(MIME_BOUNDARY_PREFIX);
        value += char('0' + level);
        value.append(m_bsBoundaryTail);
        value += '"';
    } else if (m_bsCharset.nSize > 0) {
        value.append("; charset=\"");
        value.append(m_bsCharset);
        value += '"';
    }
    if (value.nSize > 0) {
        m_bsRawBody.append("Content-Type: ");
        m_bsRawBody.append(value);
        m_bsRawBody.append("\r\n", 2);
    }
    if (!multipart) {
        const char* text = EncodingText(encoding);
        if (*text) {
            m_bsRawBody.append("Content-Transfer-Encoding: ");
            m_bsRawBody.append(text);
            m_bsRawBody.append("\r\n", 2);
        }
    }
}

void CMessage::AppendSpecialHeaders(const bstring& content_type, const bstring& extra,
                                    int32_t encoding) {
    if (content_type.nSize > 0) {
        m_bsRawBody.append("Content-Type: ");
        m_bsRawBody.append(content_type);
        m_bsRawBody.append("\r\n", 2);
    }
    m_bsRawBody.append(extra);
    const char* text = EncodingText(encoding);
    if (*text) {
        m_bsRawBody.append("Content-Transfer-Encoding: ");
        m_bsRawBody.append(text);
        m_bsRawBody.append("\r\n", 2);
    }
}

void CMessage::AppendAttachments(bool inline_ones, int32_t level, int32_t codepage) {
    for (CAttachment* a : m_pAttachments->m_coll) {
        if (a->m_bInline != inline_ones) continue;
        m_bsRawBody.append("\r\n--", 4);
        AppendBoundary(level);
        m_bsRawBody.append("\r\n", 2);
        AppendAttachmentHeaders(*a, codepage);
        m_bsRawBody.append("\r\n", 2);
        // A nameless attached message travels unencoded.
        if (a->m_wsFilename.nSize <= 0 && a->m_bsContentType.equals("message/rfc822"))
            m_bsRawBody.append(a->m_bsContent);
        else
            EncodeBase64(m_bsRawBody, a->m_bsContent.pData, a->m_bsContent.nSize, true, true);
    }
    m_bsRawBody.append("\r\n--", 4);
    AppendBoundary(level);
    m_bsRawBody.append("--", 2);
}

void CMessage::AppendAttachmentHeaders(CAttachment& a, int32_t codepage) {
    m_bsRawBody.append("Content-Type: ");
    m_bsRawBody.append(a.m_bsContentType);
    bool nameless_message =
        a.m_wsFilename.nSize <= 0 && a.m_bsContentType.equals("message/rfc822");
    wbstring name(a.m_wsFilename);
    name.replace_char(u'"', u'\'');
    name.replace(u"\r\n", u" ");
    auto encoded_name = [&](const char* header) {
        bstring out;
        if (m_bAutoEncodeHeaders) {
            EncodeHeaderValue(bstring(header), name, m_bsCharset, codepage, 2, out);
        } else {
            wbstring copy(name);
            copy.export_bstring(out, codepage);
        }
        return out;
    };
    if (!nameless_message) {
        m_bsRawBody.append(";\r\n\tname=\"");
        m_bsRawBody.append(encoded_name("name"));
        m_bsRawBody.append("\"\r\nContent-Transfer-Encoding: base64");
    }
    m_bsRawBody.append("\r\n", 2);
    if (a.m_wsContentID.nSize > 0) {
        a.m_wsContentID.strip_pairs(u"<>");
        bstring id;
        a.m_wsContentID.export_bstring(id, codepage);
        m_bsRawBody.append("Content-ID: <");
        m_bsRawBody.append(id);
        m_bsRawBody.append(">\r\n", 3);
    } else if (a.m_wsFilename.nSize > 0) {
        m_bsRawBody.append("Content-Disposition: attachment;\r\n\tfilename=\"");
        m_bsRawBody.append(encoded_name("filename"));
        m_bsRawBody.append("\"\r\n", 3);
    }
}

}  // namespace kv
