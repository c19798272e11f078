#include "message/collections.h"

#include <cstdio>

#include "automation/enum_variant.h"
#include "automation/error.h"
#include "automation/fields.h"
#include "foundation/trace.h"
#include "message/files.h"
#include "platform/files.h"
#include "shell/classes.h"
#include "shell/identifiers.h"

namespace kv {

using automation::Bind;
using automation::FieldGet;
using automation::Method;
using automation::Opt;
using automation::Arg;
using automation::Property;
using automation::ReportError;

namespace {

HRESULT ReturnWide(const wbstring& s, BSTR* out) {
    *out = s.to_bstr();
    return S_OK;
}

VARIANT_BOOL Bool(bool b) { return b ? VARIANT_TRUE : VARIANT_FALSE; }

}  // namespace

HRESULT CollectionItem(IDispatch* const* items, size_t count, int32_t index, VARIANT* out) {
    if (index < 1) return ReportError(E_INVALIDARG, "Index counts from 1");
    if (size_t(index) > count) return ReportError(E_FAIL, "Index is past the end of the collection");
    out->vt = VT_DISPATCH;
    out->pdispVal = items[index - 1];
    out->pdispVal->AddRef();
    return S_OK;
}

HRESULT CollectionEnum(IDispatch* const* items, size_t count, IUnknown** out) {
    std::vector<VARIANT> all(count);
    for (size_t i = 0; i < count; ++i) {
        VariantInit(&all[i]);
        all[i].vt = VT_DISPATCH;
        all[i].pdispVal = items[i];  // the enumerator takes its own references
    }
    *out = automation::NewVariantEnumerator(all.data(), all.size());
    return *out ? S_OK : E_OUTOFMEMORY;
}

// ---- CAttachment -----------------------------------------------------------------

CAttachment::CAttachment() : ObjectBase(shell::kAttachmentClass) {}
CAttachment* CAttachment::New() { return new CAttachment(); }

const char* DefaultExtension(const bstring& content_type, bool fallback) {
    if (content_type.nSize >= 8 && content_type.equals_at(0, 8, "message/")) return "eml";
    if (content_type.equals("image/gif")) return "gif";
    if (content_type.equals("image/jpeg")) return "jpg";
    if (content_type.equals("image/png")) return "png";
    if (content_type.equals("text/html")) return "html";
    return fallback ? "dat" : nullptr;
}

wbstring CAttachment::DefaultFilename() const {
    wbstring name;
    if (m_wsFilename.nSize <= 0) {
        bstring bytes("att");
        bytes.append_int(m_nOrdinal, 10);
        bytes += '.';
        bytes.append(DefaultExtension(m_bsContentType, true));
        name.import_bstring(bytes, 1252);
        return name;
    }
    name.assign(m_wsFilename);
    if (name.find(u'.') < 0) {
        if (const char* ext = DefaultExtension(m_bsContentType, false)) {
            name += u'.';
            for (const char* p = ext; *p; ++p) name += char16_t(*p);
        }
    }
    return name;
}

HRESULT CAttachment::get_Filename(BSTR* out) { return ReturnWide(DefaultFilename(), out); }

HRESULT CAttachment::get_IsInline(VARIANT_BOOL* out) {
    TraceBegin();
    TraceAppend(m_bInline ? "Inline=YES for " : "Inline=NO for ");
    wbstring name(m_wsFilename);
    name += char16_t(0);
    TraceAppendWide(name.pData);
    Trace();
    *out = Bool(m_bInline);
    return S_OK;
}

HRESULT CAttachment::get_PureContentID(BSTR* out) {
    if (m_wsContentID.nSize < 2) return ReturnWide(m_wsContentID, out);
    wbstring id(m_wsContentID);
    id.trim().strip_pairs(u"<>\"\"");
    return ReturnWide(id, out);
}

HRESULT CAttachment::get_Size(int32_t* out) {
    *out = m_bsContent.nSize;
    return S_OK;
}

HRESULT CAttachment::SaveFile(BSTR dir_path, BSTR filename, VARIANT_BOOL* out) {
    *out = VARIANT_FALSE;
    wbstring path(260);
    path.append_bstr(dir_path);
    wbstring name;
    name.assign_bstr(filename);
    if (name.nSize <= 0) name.assign(m_wsFilename);
    if (name.nSize <= 0) return S_OK;
    if (path.nSize > 0 && path.last_unit() != u'/' && path.last_unit() != u'\\') path += u'/';
    path.append(name);
    FILE* file = platform::OpenFile(path, "wb");
    if (!file) return S_OK;
    size_t size = size_t(m_bsContent.nSize > 0 ? m_bsContent.nSize : 0);
    size_t written = size ? std::fwrite(m_bsContent.pData, 1, size, file) : 0;
    std::fclose(file);
    *out = Bool(written == size);
    return S_OK;
}

HRESULT CAttachment::get_ContentAsArray(VARIANT* out) { return BytesToArrayVariant(m_bsContent, out); }


// ---- CAttachments ---------------------------------------------------------------

CAttachments::CAttachments() : ObjectBase(shell::kAttachmentsClass) {}
CAttachments* CAttachments::New() { return new CAttachments(); }
CAttachments::~CAttachments() { Clear(); }

void CAttachments::Clear() {
    for (CAttachment* a : m_coll) a->Release();
    m_coll.clear();
}

HRESULT CAttachments::get__NewEnum(IUnknown** out) { return CollectionEnum(m_coll, out); }
HRESULT CAttachments::get_Item(int32_t index, VARIANT* out) {
    return CollectionItem(m_coll, index, out);
}
HRESULT CAttachments::get_Count(int32_t* out) {
    *out = CountInternal();
    return S_OK;
}

HRESULT CAttachments::Remove(int32_t index, VARIANT_BOOL* out) {
    *out = VARIANT_FALSE;
    if (index < 1 || index > CountInternal()) return S_OK;
    m_coll[size_t(index) - 1]->Release();
    m_coll.erase(m_coll.begin() + (index - 1));
    m_bModified = true;
    *out = VARIANT_TRUE;
    return S_OK;
}

HRESULT CAttachments::RemoveAll() {
    if (m_coll.empty()) return S_OK;
    Clear();
    m_bModified = true;
    return S_OK;
}

// ---- CMIMEHeader / CMIMEHeaders ---------------------------------------------------

CMIMEHeader::CMIMEHeader() : ObjectBase(shell::kMIMEHeaderClass) {}
CMIMEHeader* CMIMEHeader::New() { return new CMIMEHeader(); }

CMIMEHeaders::CMIMEHeaders() : ObjectBase(shell::kMIMEHeadersClass) {}
CMIMEHeaders* CMIMEHeaders::New() { return new CMIMEHeaders(); }
CMIMEHeaders::~CMIMEHeaders() { Clear(); }

int32_t CMIMEHeaders::IndexOf(const char* name) const {
    for (size_t i = 0; i < m_coll.size(); ++i)
        if (m_coll[i]->m_bsKey.equals(name)) return int32_t(i);
    return -1;
}

int32_t CMIMEHeaders::IndexOf(const bstring& name) const {
    for (size_t i = 0; i < m_coll.size(); ++i)
        if (m_coll[i]->m_bsKey.equals(name)) return int32_t(i);
    return -1;
}

CMIMEHeader* CMIMEHeaders::Find(const char* name) const {
    int32_t i = IndexOf(name);
    return i < 0 ? nullptr : m_coll[size_t(i)];
}

CMIMEHeader* CMIMEHeaders::Find(const bstring& name) const {
    int32_t i = IndexOf(name);
    return i < 0 ? nullptr : m_coll[size_t(i)];
}

bool CMIMEHeaders::Find(const char* name, CMIMEHeader*& found) const {
    found = Find(name);
    return found != nullptr;
}

bool CMIMEHeaders::Find(const bstring& name, CMIMEHeader*& found) const {
    found = Find(name);
    return found != nullptr;
}

bool CMIMEHeaders::GetRaw(bstring& result, const char* name) const {
    result.release();
    CMIMEHeader* h = Find(name);
    if (!h) return false;
    result.assign(h->m_bsRawValue);
    return true;
}

bool CMIMEHeaders::GetWide(wbstring& result, const char* name) const {
    result.release();
    CMIMEHeader* h = Find(name);
    if (!h) return false;
    result.assign(h->m_wsValue);
    return true;
}

bstring& CMIMEHeaders::GetWire(bstring& result, const char* name) const {
    result.release();
    if (CMIMEHeader* h = Find(name)) result.assign(h->m_bsWireValue);
    return result;
}

bool CMIMEHeaders::GetMain(bstring& result, const char* name) const {
    result.release();
    CMIMEHeader* h = Find(name);
    if (!h) return false;
    result.assign(h->m_bsMainValue);
    return true;
}

bool CMIMEHeaders::GetParam(bstring& result, const char* header, const char* param) const {
    CMIMEHeader* h = Find(header);
    if (!h) return false;
    auto it = h->m_mapParams.find(bstring(param));
    if (it == h->m_mapParams.end()) return false;
    result.assign(it->second);
    return true;
}

bool CMIMEHeaders::GetWideParam(wbstring& result, const char* header, const char* param) const {
    CMIMEHeader* h = Find(header);
    if (!h) return false;
    auto it = h->m_mapWideParams.find(bstring(param));
    if (it == h->m_mapWideParams.end()) return false;
    result.assign(it->second);
    return true;
}

void CMIMEHeaders::RemoveAt(int32_t index) {
    if (index < 0 || size_t(index) >= m_coll.size()) return;
    m_coll[size_t(index)]->Release();
    m_coll.erase(m_coll.begin() + index);
}

void CMIMEHeaders::Clear() {
    for (CMIMEHeader* h : m_coll) h->Release();
    m_coll.clear();
}

HRESULT CMIMEHeaders::get__NewEnum(IUnknown** out) { return CollectionEnum(m_coll, out); }
HRESULT CMIMEHeaders::get_Item(int32_t index, VARIANT* out) {
    return CollectionItem(m_coll, index, out);
}
HRESULT CMIMEHeaders::get_Count(int32_t* out) {
    *out = int32_t(m_coll.size());
    return S_OK;
}

// ---- CBodyPart, CMessages -----------------------------------------------------------

CBodyPart::CBodyPart() : ObjectBase(shell::kBodyPartClass) {}
CBodyPart* CBodyPart::New() { return new CBodyPart(); }

CMessages::CMessages() : ObjectBase(shell::kMessagesClass) {}
CMessages* CMessages::New() { return new CMessages(); }
CMessages::~CMessages() {
    for (IDispatch* m : m_coll) m->Release();
}
HRESULT CMessages::get__NewEnum(IUnknown** out) { return CollectionEnum(m_coll, out); }
HRESULT CMessages::get_Item(int32_t index, VARIANT* out) {
    return CollectionItem(m_coll.data(), m_coll.size(), index, out);
}
HRESULT CMessages::get_Count(int32_t* out) {
    *out = int32_t(m_coll.size());
    return S_OK;
}

// ---- member tables ------------------------------------------------------------------

namespace shell {

const InterfaceInfo kIAttachment("IAttachment", IID_IAttachment, {
    Property(1, "Filename", VT_BSTR, Bind<&CAttachment::get_Filename>()),
    FieldGet<CAttachment, &CAttachment::m_bsContentType>(2, "ContentType"),
    FieldGet<CAttachment, &CAttachment::m_wsContentID>(3, "ContentID"),
    Property(4, "IsInline", VT_BOOL, Bind<&CAttachment::get_IsInline>()),
    FieldGet<CAttachment, &CAttachment::m_bsContent>(5, "Content"),
    Property(6, "PureContentID", VT_BSTR, Bind<&CAttachment::get_PureContentID>()),
    Property(8, "Size", VT_I4, Bind<&CAttachment::get_Size>()),
    Method(9, "SaveFile", VT_BOOL, Bind<&CAttachment::SaveFile>(),
           {Arg("DirPath", VT_BSTR), Opt("Filename", VT_BSTR, "")}),
    FieldGet<CAttachment, &CAttachment::m_bMessage>(10, "IsMessage"),
    Property(11, "ContentAsArray", VT_VARIANT, Bind<&CAttachment::get_ContentAsArray>()),
    FieldGet<CAttachment, &CAttachment::m_wsContentLocation>(12, "ContentLocation"),
    FieldGet<CAttachment, &CAttachment::m_wsFilename>(13, "FilenameAsIs"),
    FieldGet<CAttachment, &CAttachment::m_wsContentDisposition>(14, "ContentDisposition"),
});

const InterfaceInfo kIAttachments("IAttachments", IID_IAttachments, {
    Property(DISPID_NEWENUM, "_NewEnum", VT_UNKNOWN, Bind<&CAttachments::get__NewEnum>()),
    Property(0, "Item", VT_VARIANT, Bind<&CAttachments::get_Item>(), {}, {Arg("Index", VT_I4)}),
    Property(1, "Count", VT_I4, Bind<&CAttachments::get_Count>()),
    Method(2, "Remove", VT_BOOL, Bind<&CAttachments::Remove>(), {Arg("Index", VT_I4)}),
    Method(3, "RemoveAll", VT_EMPTY, Bind<&CAttachments::RemoveAll>()),
});

const InterfaceInfo kIMIMEHeader("IMIMEHeader", IID_IMIMEHeader, {
    FieldGet<CMIMEHeader, &CMIMEHeader::m_bsKey>(1, "Key"),
    FieldGet<CMIMEHeader, &CMIMEHeader::m_wsValue>(2, "Value"),
});

// Declares nothing for a type library, but answers the collection members.
const InterfaceInfo kIMIMEHeaders("IMIMEHeaders", IID_IMIMEHeaders, {
    Property(DISPID_NEWENUM, "_NewEnum", VT_UNKNOWN, Bind<&CMIMEHeaders::get__NewEnum>()),
    Property(0, "Item", VT_VARIANT, Bind<&CMIMEHeaders::get_Item>(), {}, {Arg("Index", VT_I4)}),
    Property(1, "Count", VT_I4, Bind<&CMIMEHeaders::get_Count>()),
});

const InterfaceInfo kIBodyPart("IBodyPart", IID_IBodyPart, {});

const InterfaceInfo kIMessages("IMessages", IID_IMessages, {
    Property(DISPID_NEWENUM, "_NewEnum", VT_UNKNOWN, Bind<&CMessages::get__NewEnum>()),
    Property(0, "Item", VT_VARIANT, Bind<&CMessages::get_Item>(), {}, {Arg("Index", VT_I4)}),
    Property(1, "Count", VT_I4, Bind<&CMessages::get_Count>()),
});

}  // namespace shell
}  // namespace kv
