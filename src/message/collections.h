// The small reference-counted objects that hang off a message: attachments,
// header records, body parts, and their collections. Plain records with
// automation members; the message reaches their fields directly.
#pragma once

#include <map>
#include <type_traits>
#include <vector>

#include "automation/object.h"
#include "foundation/bstring.h"

namespace kv {

using automation::ObjectBase;

class CAttachment : public ObjectBase {
public:
    // A new attachment holding one reference, its creator's.
    static CAttachment* New();

    bool m_bInline = false;
    bool m_bMessage = false;
    wbstring m_wsFilename;
    bstring m_bsContentType;  // main value, without parameters
    wbstring m_wsContentID;
    bstring m_bsContent;  // decoded bytes
    wbstring m_wsContentLocation;
    wbstring m_wsContentDisposition;
    int32_t m_nOrdinal = 0;

    // The name a script sees: the stored one, given an extension from the
    // content type when it has none, or "att<ordinal>.<ext>" when empty.
    wbstring DefaultFilename() const;

    HRESULT get_Filename(BSTR* out);
    HRESULT get_IsInline(VARIANT_BOOL* out);
    HRESULT get_PureContentID(BSTR* out);
    HRESULT get_Size(int32_t* out);
    HRESULT SaveFile(BSTR dir_path, BSTR filename, VARIANT_BOOL* out);
    HRESULT get_ContentAsArray(VARIANT* out);

private:
    CAttachment();
};

// The default file extension of a content type: "eml" for any message/*,
// "gif", "jpg", "png", "html" for those types, else "dat" with a fallback
// and nothing without.
const char* DefaultExtension(const bstring& content_type, bool fallback);

class CAttachments : public ObjectBase {
public:
    static CAttachments* New();
    ~CAttachments() override;

    std::vector<CAttachment*> m_coll;  // one reference each
    bool m_bModified = false;          // an attachment was removed since the last rebuild

    // Takes over the caller's reference.
    void Add(CAttachment* attachment) { m_coll.push_back(attachment); }
    int32_t CountInternal() const { return int32_t(m_coll.size()); }
    void Clear();

    HRESULT get__NewEnum(IUnknown** out);
    HRESULT get_Item(int32_t index, VARIANT* out);
    HRESULT get_Count(int32_t* out);
    HRESULT Remove(int32_t index, VARIANT_BOOL* out);
    HRESULT RemoveAll();

private:
    CAttachments();
};

class CMIMEHeader : public ObjectBase {
public:
    static CMIMEHeader* New();

    bstring m_bsKey;
    bstring m_bsRawValue;
    wbstring m_wsValue;
    bstring m_bsMainValue;
    bstring m_bsWireValue;  // empty: to be made anew by the composer
    bool m_bStandard = false;
    std::map<bstring, bstring> m_mapParams;
    std::map<bstring, wbstring> m_mapWideParams;

private:
    CMIMEHeader();
};

class CMIMEHeaders : public ObjectBase {
public:
    static CMIMEHeaders* New();
    ~CMIMEHeaders() override;

    std::vector<CMIMEHeader*> m_coll;  // one reference each

    // Takes over the caller's reference.
    void Add(CMIMEHeader* header) { m_coll.push_back(header); }

    // Lookups scan from the first record and ignore case: the first record
    // of a name wins.
    bool Contains(const char* name) const { return IndexOf(name) >= 0; }
    bool Contains(const bstring& name) const { return IndexOf(name) >= 0; }
    bool Find(const char* name, CMIMEHeader*& found) const;
    bool Find(const bstring& name, CMIMEHeader*& found) const;
    CMIMEHeader* Find(const char* name) const;
    CMIMEHeader* Find(const bstring& name) const;
    int32_t IndexOf(const char* name) const;
    int32_t IndexOf(const bstring& name) const;
    bool GetRaw(bstring& result, const char* name) const;
    bool GetWide(wbstring& result, const char* name) const;
    bstring& GetWire(bstring& result, const char* name) const;
    bool GetMain(bstring& result, const char* name) const;
    bool GetParam(bstring& result, const char* header, const char* param) const;
    bool GetWideParam(wbstring& result, const char* header, const char* param) const;
    // Releases and removes the record at index.
    void RemoveAt(int32_t index);
    void Clear();

    HRESULT get__NewEnum(IUnknown** out);
    HRESULT get_Item(int32_t index, VARIANT* out);
    HRESULT get_Count(int32_t* out);

private:
    CMIMEHeaders();
};

class CMessage;

// A decoded text part of a parsed message, kept while the parse chooses the
// body; nothing is exposed to scripts.
class CBodyPart : public ObjectBase {
public:
    static CBodyPart* New();

    wbstring m_bsContent;           // the decoded text
    bstring m_bsContentTypeLine;    // the Content-Type value as it stood
    bstring m_bsMediaType;          // trimmed, lower case, no parameters
    bstring m_bsCharset;            // its charset parameter
    int32_t m_nFormat = 0;          // format number of the media type
    int32_t m_nCodepage = 0;        // the code page the text was decoded with

private:
    CBodyPart();
};

// A read-only list of messages, filled by the mail protocols.
class CMessages : public ObjectBase {
public:
    static CMessages* New();
    ~CMessages() override;

    std::vector<IDispatch*> m_coll;  // one reference each

    HRESULT get__NewEnum(IUnknown** out);
    HRESULT get_Item(int32_t index, VARIANT* out);
    HRESULT get_Count(int32_t* out);

private:
    CMessages();
};

// Item and _NewEnum of a vector of our objects, with the rules every
// collection shares: Item counts from 1, fails below with E_INVALIDARG and
// past the end with E_FAIL.
HRESULT CollectionItem(IDispatch* const* items, size_t count, int32_t index, VARIANT* out);
HRESULT CollectionEnum(IDispatch* const* items, size_t count, IUnknown** out);

template <class T>
HRESULT CollectionItem(const std::vector<T*>& items, int32_t index, VARIANT* out) {
    static_assert(std::is_base_of_v<IDispatch, T>);
    std::vector<IDispatch*> all(items.begin(), items.end());
    return CollectionItem(all.data(), all.size(), index, out);
}
template <class T>
HRESULT CollectionEnum(const std::vector<T*>& items, IUnknown** out) {
    std::vector<IDispatch*> all(items.begin(), items.end());
    return CollectionEnum(all.data(), all.size(), out);
}

}  // namespace kv
