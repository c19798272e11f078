#include "message/message.h"

#include <cstring>

#include "automation/error.h"
#include "codecs/mediatype.h"
#include "foundation/dotstuff.h"
#include "foundation/trace.h"
#include "message/files.h"
#include "platform/timezone.h"
#include "shell/classes.h"

namespace kv {

using automation::IID_IKvObject;

namespace {

VARIANT_BOOL Bool(bool b) { return b ? VARIANT_TRUE : VARIANT_FALSE; }

HRESULT ReturnWide(const wbstring& s, BSTR* out) {
    *out = s.to_bstr();
    return S_OK;
}

HRESULT ReturnBytes(const bstring& s, BSTR* out) {
    *out = s.to_bstr(0);
    return S_OK;
}

const char* const kStandardHeaders[] = {
    "return-path", "from", "reply-to", "to", "cc", "bcc", "subject", "date", "message-id",
    "content-type", "content-transfer-encoding", "mime-version", "x-mailer",
};

}  // namespace

CMessage::CMessage() : ObjectBase(shell::kMessageClass) {
    Trace("Message Object to be created");
    m_pAttachments = CAttachments::New();
    m_pHeaders = CMIMEHeaders::New();
    Trace("Message Object created");
}

CMessage::~CMessage() {
    Trace("Message Object to be destroyed");
    m_pAttachments->Release();
    m_pHeaders->Release();
    for (CBodyPart* part : m_collBodyParts) part->Release();
    m_collBodyParts.clear();
    Trace("Message Object destroyed");
}

CMessage* CMessage::New() { return new CMessage(); }

CMessage* CMessage::FromDispatch(IDispatch* object) {
    if (!object) return nullptr;
    ObjectBase* base = nullptr;
    if (FAILED(object->QueryInterface(IID_IKvObject, reinterpret_cast<void**>(&base))) || !base)
        return nullptr;
    CMessage* message = &base->Class() == &shell::kMessageClass ? static_cast<CMessage*>(base)
                                                                 : nullptr;
    base->Release();  // the caller's own reference keeps it alive
    return message;
}

bool CMessage::IsStandardHeader(const bstring& name) {
    for (const char* standard : kStandardHeaders)
        if (name.equals(standard)) return true;
    return false;
}

// ---- the two representations ---------------------------------------------------------

void CMessage::EnsureRawBody() {
    if (!m_bNeedsRebuild && !m_pAttachments->m_bModified) return;
    m_bHeadersOnly = false;
    MessageToRawBody();
    m_bNeedsRebuild = false;
    m_pAttachments->m_bModified = false;
}

void CMessage::ImportRawMessage(bool headers_only, int32_t server_size) {
    m_bHeadersOnly = headers_only;
    RawBodyToMessage();
    m_nServerSize = m_bHeadersOnly ? server_size : m_bsRawBody.nSize;
    m_bNeedsRebuild = false;
}

void CMessage::ImportReceivedText(const char* data, int32_t size, bool dot_stuffed, bool headers_only,
                                  int32_t server_size) {
    if (size < 0) size = 0;
    m_bsRawBody.nSize = 0;
    m_bsRawBody.reserve(size);
    if (dot_stuffed)
        m_bsRawBody.nSize = Unstuff(data, size, m_bsRawBody.pData);
    else
        m_bsRawBody.assign(data, size);
    ImportRawMessage(headers_only, server_size);
}

void CMessage::RemoveHeaderRecord(const char* name) {
    m_pHeaders->RemoveAt(m_pHeaders->IndexOf(name));
}

void CMessage::CopyHeader(const char* name, CMessage& target) const {
    CMIMEHeader* source = FindHeader(name);
    if (!source) {
        target.RemoveHeaderRecord(name);
        return;
    }
    CMIMEHeader* record = target.FindHeader(name);
    if (!record) {
        record = CMIMEHeader::New();
        target.m_pHeaders->Add(record);
    }
    record->m_bsKey.assign(source->m_bsKey);
    record->m_wsValue.assign(source->m_wsValue);
    record->m_bsWireValue.assign(source->m_bsWireValue);
    record->m_bStandard = source->m_bStandard;
}

// ---- change hooks, and properties with more than a field behind them --------------------

void CMessage::HeaderFieldChanged(wbstring* pure_cache, const char* header) {
    RemoveHeaderRecord(header);
    if (pure_cache) pure_cache->nSize = 0;
    m_bNeedsRebuild = true;
}

// A From line already encoded in the old charset is emptied so the next
// rebuild encodes it anew; nothing else is touched.
void CMessage::CharsetChanged() {
    if (CMIMEHeader* from = FindHeader("from")) {
        bool ascii = true;
        for (int32_t i = 0; i < from->m_bsWireValue.nSize && ascii; ++i)
            ascii = static_cast<unsigned char>(from->m_bsWireValue.pData[i]) < 0x80;
        if (!ascii) from->m_bsWireValue.nSize = 0;
    }
    m_bNeedsRebuild = true;
}

HRESULT CMessage::get_GetObject(int64_t* out) {
    *out = int64_t(reinterpret_cast<intptr_t>(this));
    return S_OK;
}

HRESULT CMessage::get_Locked(VARIANT_BOOL* out) {
    *out = VARIANT_FALSE;
    return S_OK;
}
HRESULT CMessage::put_Locked(VARIANT_BOOL) { return S_OK; }

HRESULT CMessage::get_Size(int32_t* out) {
    EnsureRawBody();
    *out = m_bHeadersOnly ? m_nServerSize : m_bsRawBody.nSize;
    return S_OK;
}

HRESULT CMessage::get_ContentType(BSTR* out) {
    BSTR name = SysAllocString(u"content-type");
    HRESULT hr = GetHeader(name, out);
    SysFreeString(name);
    return hr;
}
HRESULT CMessage::get_ContentTransferEncoding(BSTR* out) {
    BSTR name = SysAllocString(u"content-transfer-encoding");
    HRESULT hr = GetHeader(name, out);
    SysFreeString(name);
    return hr;
}

HRESULT CMessage::get_Codepage(int32_t* out) {
    *out = 0;
    return S_OK;
}
HRESULT CMessage::put_Codepage(int32_t) { return S_OK; }

HRESULT CMessage::GetMessageDirectoryPath(BSTR* out) {
    return ReturnWide(m_wsMessageDirectoryPath, out);
}

// Taken up by the next rebuild that something else causes.
HRESULT CMessage::SetMultipartContentType(BSTR content_type, BSTR extra_params) {
    m_bsMultipartContentType.assign_bstr(content_type);
    m_bsMultipartExtraParams.assign_bstr(extra_params);
    return S_OK;
}

HRESULT CMessage::get_IsRtlBody(VARIANT_BOOL* out) {
    int32_t cp = m_nCodepageOriginal;
    *out = Bool(cp == 862 || cp == 864 || cp == 1255 || cp == 1256);
    return S_OK;
}

// ---- the raw side -------------------------------------------------------------------------

HRESULT CMessage::get_RawBody(BSTR* out) {
    EnsureRawBody();
    return ReturnBytes(m_bsRawBody, out);
}

HRESULT CMessage::put_RawBody(BSTR value) {
    m_bsRawBody.assign_bstr(value);
    RawBodyToMessage();
    m_bNeedsRebuild = false;
    return S_OK;
}

HRESULT CMessage::get_RawHeader(BSTR* out) {
    EnsureRawBody();
    int32_t end = m_bsRawBody.find("\r\n\r\n");
    if (end < 0) return ReturnBytes(m_bsRawBody, out);
    bstring head;
    head.borrow(m_bsRawBody.pData, end);
    return ReturnBytes(head, out);
}

HRESULT CMessage::Clone(IDispatch** out) {
    EnsureRawBody();
    CMessage* copy = CMessage::New();
    copy->m_bsRawBody.assign(m_bsRawBody);
    copy->m_bNeedsRebuild = true;
    *out = copy;
    return S_OK;
}

HRESULT CMessage::GetLocalTimeZoneOffset(VARIANT_BOOL ignore_daylight_bias, int32_t* out) {
    platform::TimeZoneInformation zone =
        platform::GetTimeZoneInformation(platform::GetSystemTimeAsFileTime());
    int32_t bias = zone.bias;
    if (zone.daylightInForce && !ignore_daylight_bias) bias += zone.daylightBias;
    *out = bias;
    return S_OK;
}

// ---- headers ----------------------------------------------------------------------------------

HRESULT CMessage::AddHeader(BSTR name_text, BSTR value, VARIANT_BOOL* out) {
    *out = VARIANT_FALSE;
    bstring name;
    name.assign_bstr(name_text);
    if (name.nSize <= 0) return S_OK;
    if (!m_bMinimalRebuild && IsStandardHeader(name)) return S_OK;
    if (CMIMEHeader* record = m_pHeaders->Find(name)) {
        record->m_wsValue.assign_bstr(value);
        record->m_bsWireValue.nSize = 0;
    } else {
        CMIMEHeader* added = CMIMEHeader::New();
        added->m_bsKey.assign(name);
        added->m_wsValue.assign_bstr(value);
        m_pHeaders->Add(added);
    }
    m_bNeedsRebuild = true;
    *out = VARIANT_TRUE;
    return S_OK;
}

HRESULT CMessage::GetHeader(BSTR name_text, BSTR* out) {
    bstring name;
    name.assign_bstr(name_text);
    CMIMEHeader* record = name.nSize > 0 ? m_pHeaders->Find(name) : nullptr;
    *out = record ? record->m_wsValue.to_bstr() : nullptr;
    return S_OK;
}

HRESULT CMessage::RemoveHeader(BSTR name_text, VARIANT_BOOL* out) {
    *out = VARIANT_FALSE;
    bstring name;
    name.assign_bstr(name_text);
    if (name.nSize <= 0) return S_OK;
    // Received values live in their own field, never in a record.
    if (name.equals("received")) {
        m_bsReceived.nSize = 0;
        *out = VARIANT_TRUE;
        return S_OK;
    }
    int32_t index = m_pHeaders->IndexOf(name);
    if (index < 0) return S_OK;
    if (!m_bMinimalRebuild && IsStandardHeader(name)) return S_OK;
    m_pHeaders->RemoveAt(index);
    m_bNeedsRebuild = true;
    *out = VARIANT_TRUE;
    return S_OK;
}

// ---- attachments --------------------------------------------------------------------------------

void CMessage::AddAttachmentBytes(bstring& content, const wbstring& name,
                                  const bstring& content_type, const wbstring& content_id) {
    CAttachment* attachment = CAttachment::New();
    if (!name.equals(u"<none>")) attachment->m_wsFilename.assign(name);
    if (content_type.nSize > 0) {
        attachment->m_bsContentType.assign(content_type);
    } else {
        GetMediaTypeFromFileName(attachment->m_bsContentType, attachment->m_wsFilename);
    }
    attachment->m_wsContentID.assign(content_id);
    attachment->m_bInline = content_id.nSize > 0;
    attachment->m_bMessage = attachment->m_bsContentType.equals("message/rfc822");
    content.give_to(attachment->m_bsContent);
    attachment->m_nOrdinal = m_pAttachments->CountInternal();
    m_pAttachments->Add(attachment);
}

void CMessage::AddAttachmentBytes(bstring& content, BSTR name_text, BSTR content_type_text,
                                  BSTR content_id_text) {
    wbstring content_id, name;
    content_id.assign_bstr(content_id_text);
    name.assign_bstr(name_text);
    bstring content_type;
    content_type.assign_bstr(content_type_text);
    AddAttachmentBytes(content, name, content_type, content_id);
}

HRESULT CMessage::AddAttachment(BSTR path_text, BSTR content_type_text, BSTR content_id_text,
                                BSTR filename_text, VARIANT_BOOL* out) {
    *out = VARIANT_FALSE;
    m_bNeedsRebuild = true;
    wbstring path, content_id, filename;
    path.assign_bstr(path_text);
    content_id.assign_bstr(content_id_text);
    filename.assign_bstr(filename_text);
    bstring content_type;
    content_type.assign_bstr(content_type_text);

    bstring content;
    if (!AppendFileToBString(path, content)) return S_OK;
    if (filename.nSize <= 0) {
        int32_t slash = path.rfind(u'/'), backslash = path.rfind(u'\\');
        int32_t cut = slash > backslash ? slash : backslash;
        filename.append_range(path, cut + 1);
    }
    AddAttachmentBytes(content, filename, content_type, content_id);
    *out = VARIANT_TRUE;
    return S_OK;
}

HRESULT CMessage::AddMemoryAttachment(const VARIANT& data, BSTR filename_text,
                                      BSTR content_type_text, BSTR content_id_text,
                                      VARIANT_BOOL* out) {
    *out = VARIANT_FALSE;
    bstring content;
    if (!BytesFromArrayVariant(data, content)) return S_OK;
    AddAttachmentBytes(content, filename_text, content_type_text, content_id_text);
    m_bNeedsRebuild = true;
    *out = VARIANT_TRUE;
    return S_OK;
}

HRESULT CMessage::AddStringAttachment(BSTR data, VARIANT_BOOL as_utf8, BSTR filename_text,
                                      BSTR content_type_text, BSTR content_id_text,
                                      VARIANT_BOOL* out) {
    bstring content;
    if (as_utf8)
        content.assign_bstr_utf8(data);
    else
        content.assign_bstr(data);
    AddAttachmentBytes(content, filename_text, content_type_text, content_id_text);
    m_bNeedsRebuild = true;
    *out = VARIANT_TRUE;
    return S_OK;
}

}  // namespace kv

