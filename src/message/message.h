// CMessage, the automation object Korvane.Message: one mail message held in
// two representations at once, the raw bytes m_bsRawBody and the decoded
// properties with their header and attachment collections.
//
// Writing a decoded property only marks the raw text stale
// (m_bNeedsRebuild); reading the raw text runs EnsureRawBody, which composes
// when something is stale. Writing the raw text parses at once.
#pragma once

#include <vector>

#include "automation/object.h"
#include "foundation/bstring.h"
#include "message/collections.h"

namespace kv {

struct ParseBudget;  // limits of one parse, in parse.cpp

class CMessage : public ObjectBase {
public:
    // A new message holding one reference, its creator's.
    static CMessage* New();
    // The message behind an interface pointer of ours, or null when the
    // pointer is not a message of this library. No reference is added.
    static CMessage* FromDispatch(IDispatch* object);

    // ---- fields, in declared order ----
    bool m_bPreformatted = false;
    bstring m_bsPreformattedContentType;
    bool m_bMinimalRebuild = false;
    int32_t m_nCodepageOriginal = 0;
    bstring m_bsCharsetOriginal;
    bstring m_bsCharset{"utf-8"};
    int32_t m_nAltBodyOptions = 1;
    wbstring m_wsAltBodyHRefSuffix;
    CAttachments* m_pAttachments = nullptr;
    CMIMEHeaders* m_pHeaders = nullptr;
    bstring m_bsRawBody;
    wbstring m_wsFromAddr, m_wsReplyToAddr, m_wsToAddr, m_wsCCAddr, m_wsBCCAddr, m_wsSubject;
    wbstring m_wsPureFromAddr, m_wsPureReplyToAddr, m_wsPureToAddr, m_wsPureCCAddr;
    wbstring m_wsAddressDelimiter{u", "};
    bstring m_bsReceived;
    bstring m_bsReturnPath;
    bstring m_bsXMailer{"Korvane Objects (ActiveX) 9.4"};
    wbstring m_wsBodyText;
    int32_t m_nBodyFormat = 0;
    int32_t m_nBodyEncoding = 2;
    bool m_bNeedsRebuild = true;
    bool m_bAutoEncodeHeaders = true;
    std::vector<CBodyPart*> m_collBodyParts;
    wbstring m_wsAltBodyText, m_wsSpecialBodyText;
    bstring m_bsSpecialBodyContentType, m_bsSpecialBodyHeaders;
    bstring m_bsMultipartContentType, m_bsMultipartExtraParams;
    bstring m_bsDate;
    bstring m_bsMessageId;
    bool m_bMessageIdSet = false, m_bDateSet = false;
    wbstring m_wsMessageDirectoryPath;
    bstring m_bsBoundaryTail{40};
    bool m_bMultipart = false, m_bMixed = false, m_bRelated = false, m_bAlternative = false;
    int32_t m_nNesting = 0;
    int32_t m_nServerSize = 0;
    int32_t m_nTopCodepage = -1;
    bool m_bHasAttachments = false;
    bool m_bHeadersOnly = false;
    int32_t m_nAltBodyEncoding = 2;
    bool m_bEnable8bitEncoding = false;

    // ---- internal operations ----
    // Brings m_bsRawBody up to date: composes when the decoded side or the
    // attachment collection changed since the last compose or parse.
    void EnsureRawBody();
    // The caller stored bytes in m_bsRawBody directly: parse them now.
    void ImportRawMessage(bool headers_only, int32_t server_size);
    // A session hands over the text of a message it received: data[0, size)
    // becomes the raw text (with "\r\n.." read as "\r\n." when dot_stuffed,
    // data starting just after a line break) and is parsed. headers_only: the
    // head alone, whose size is the server's server_size.
    void ImportReceivedText(const char* data, int32_t size, bool dot_stuffed, bool headers_only,
                            int32_t server_size);
    // Compose the decoded side into m_bsRawBody / parse m_bsRawBody into the
    // decoded side. Parsing never fails.
    void MessageToRawBody();
    void RawBodyToMessage();
    CMIMEHeader* FindHeader(const char* name) const { return m_pHeaders->Find(name); }
    void RemoveHeaderRecord(const char* name);
    void CopyHeader(const char* name, CMessage& target) const;
    static bool IsStandardHeader(const bstring& name);

    // ---- after a write of a bound property (message_table.cpp) ----
    void MarkStale() { m_bNeedsRebuild = true; }
    void FromChanged() { HeaderFieldChanged(&m_wsPureFromAddr, "from"); }
    void ToChanged() { HeaderFieldChanged(&m_wsPureToAddr, "to"); }
    void CCChanged() { HeaderFieldChanged(&m_wsPureCCAddr, "cc"); }
    void ReplyToChanged() { HeaderFieldChanged(&m_wsPureReplyToAddr, "reply-to"); }
    void SubjectChanged() { HeaderFieldChanged(nullptr, "subject"); }
    // Bcc never reaches the message text, only the envelope: no rebuild.
    void BCCChanged() { RemoveHeaderRecord("bcc"); }
    void CharsetChanged();
    void DateChanged() {
        m_bDateSet = true;
        MarkStale();
    }
    void MessageIdChanged() {
        m_bMessageIdSet = true;
        MarkStale();
    }
    void DelimiterChanged() { m_wsAddressDelimiter.null_terminate(); }

    // ---- IMessage ----
    HRESULT AddAttachment(BSTR path, BSTR content_type, BSTR content_id, BSTR filename,
                          VARIANT_BOOL* out);
    HRESULT get_RawBody(BSTR* out);
    HRESULT put_RawBody(BSTR value);
    HRESULT AddHeader(BSTR name, BSTR value, VARIANT_BOOL* out);
    HRESULT GetHeader(BSTR name, BSTR* out);
    HRESULT get_GetObject(int64_t* out);
    HRESULT get_Locked(VARIANT_BOOL* out);
    HRESULT put_Locked(VARIANT_BOOL value);
    HRESULT get_Size(int32_t* out);
    HRESULT get_ContentType(BSTR* out);
    HRESULT get_ContentTransferEncoding(BSTR* out);
    HRESULT GetMessageDirectoryPath(BSTR* out);
    // Codepage and CodepageMode: 0, and a write is ignored.
    HRESULT get_Codepage(int32_t* out);
    HRESULT put_Codepage(int32_t value);
    HRESULT get_RawHeader(BSTR* out);
    HRESULT GetLocalTimeZoneOffset(VARIANT_BOOL ignore_daylight_bias, int32_t* out);
    HRESULT RemoveHeader(BSTR name, VARIANT_BOOL* out);
    HRESULT AddMemoryAttachment(const VARIANT& data, BSTR filename, BSTR content_type,
                                BSTR content_id, VARIANT_BOOL* out);
    HRESULT AddStringAttachment(BSTR data, VARIANT_BOOL as_utf8, BSTR filename,
                                BSTR content_type, BSTR content_id, VARIANT_BOOL* out);
    HRESULT SetMultipartContentType(BSTR content_type, BSTR extra_params);
    HRESULT Clone(IDispatch** out);
    HRESULT get_IsRtlBody(VARIANT_BOOL* out);
    // HTML and plain text (message_html.cpp).
    HRESULT MakeAltBody(VARIANT_BOOL* out);
    HRESULT GetPlainFromHtml(BSTR html, BSTR* out);
    HRESULT GetHtmlFromPlain(BSTR plain_text, BSTR title, VARIANT_BOOL inner_body_only, BSTR* out);

    // Addresses and header words.
    HRESULT EncodeHeaderText(BSTR name, BSTR text, BSTR charset, int32_t encoding, BSTR* out);
    HRESULT get_PureFromAddr(BSTR* out);
    HRESULT get_PureToAddr(BSTR* out);
    HRESULT get_PureCCAddr(BSTR* out);
    HRESULT get_PureReplyToAddr(BSTR* out);
    HRESULT get_FromFriendlyName(BSTR* out);
    HRESULT get_ToFriendlyName(BSTR* out);
    HRESULT get_CCFriendlyName(BSTR* out);
    HRESULT get_ReplyToFriendlyName(BSTR* out);
    HRESULT GetPureAddr(BSTR addr, BSTR delimiter, BSTR* out);
    HRESULT GetFriendlyName(BSTR addr, BSTR delimiter, BSTR* out);
    HRESULT ValidateEmailAddress(BSTR address, int32_t options, BSTR dns_server, VARIANT_BOOL* out);
    HRESULT EscapeIdnDomain(BSTR address, BSTR* out);
    HRESULT UnescapeIdnDomain(BSTR address, BSTR* out);

    // Charsets and dates.
    HRESULT ToUTF8(BSTR src, BSTR src_charset, BSTR* out);
    HRESULT ConvertCharset(BSTR src, BSTR src_charset, BSTR dest_charset, BSTR* out);
    HRESULT RemoveCharsetFromBody(BSTR* out);
    HRESULT GetCodepageFromCharset(BSTR charset, int32_t* out);
    HRESULT GetDateFromString(BSTR text, VARIANT_BOOL to_local_time, double* out);

    // Message files and byte arrays (message_files.cpp).
    HRESULT ImportBodyText(BSTR path, VARIANT_BOOL html_import, VARIANT_BOOL append_mode,
                           BSTR charset, int32_t charset_options, VARIANT_BOOL* out);
    HRESULT SaveMessage(BSTR path, VARIANT_BOOL* out);
    HRESULT ImportAltBodyText(BSTR path, VARIANT_BOOL append_mode, BSTR charset,
                              VARIANT_BOOL* out);
    HRESULT ImportFromFile(BSTR path, VARIANT_BOOL* out);
    HRESULT GetFileAsArray(BSTR path, VARIANT* out);
    HRESULT ImportFromMemory(const VARIANT& data, VARIANT_BOOL* out);
    HRESULT WriteStringToFile(BSTR filename, BSTR data, VARIANT_BOOL overwrite, int32_t codepage,
                              VARIANT_BOOL* out);
    // EnsureRawBody, then prefix and the raw text into a new file at path;
    // true when the raw text was written completely.
    bool SaveRawToFile(const wbstring& path, const bstring& prefix);

    // Embedded objects and message directories (embedded.cpp).
    HRESULT GetBodyWithEmbeddedObjectsEx(BSTR temp_dir, BSTR virtual_path, BSTR dir_name,
                                         int32_t mode, int32_t options, IDispatch* censor,
                                         BSTR* out);
    HRESULT GetBodyWithEmbeddedObjects(BSTR temp_dir, BSTR dir_name, IDispatch* censor,
                                       BSTR* out);
    HRESULT RemoveMessageDirectory(BSTR path, VARIANT_BOOL content_only, VARIANT_BOOL* out);
    HRESULT MessageDirectoryExists(BSTR path, VARIANT_BOOL* out);

    // Digests (digest.cpp).
    HRESULT GetMD5Digest(BSTR text, int32_t codepage, BSTR* out);
    HRESULT GetMD5DigestOfArray(const VARIANT& data, BSTR* out);

protected:
    ~CMessage() override;

private:
    CMessage();
    // An address or the subject written: its header record goes (the field
    // rules now), and so does the cached pure address; the raw text is stale.
    void HeaderFieldChanged(wbstring* pure_cache, const char* header);
    // Composition steps.
    int32_t ComposeHeaders();
    void ComposeHeadersMinimal();
    void PrepareHeader(const char* name, const wbstring& value, int32_t codepage);
    void PrepareStandardHeaders(int32_t codepage);
    void AppendEntityHeaders(int32_t type, int32_t encoding, int32_t level);
    void AppendSpecialHeaders(const bstring& content_type, const bstring& extra, int32_t encoding);
    void AppendAttachments(bool inline_ones, int32_t level, int32_t codepage);
    void AppendAttachmentHeaders(CAttachment& attachment, int32_t codepage);
    void AppendBoundary(int32_t level);
    const char* EncodingText(int32_t encoding) const;
    // Parsing steps (parse.cpp). budget bounds nesting and part count.
    void DecodePart(const bstring& part, int32_t& default_codepage, ParseBudget& budget);
    void LoadHeaderProperties();
    // The cached Pure form of an address field, computed on first read.
    const wbstring& PureAddress(wbstring& cache, const wbstring& field, const char* header);
    // Steps shared by the three ways of adding an attachment.
    void AddAttachmentBytes(bstring& content, const wbstring& name, const bstring& content_type,
                            const wbstring& content_id);
    void AddAttachmentBytes(bstring& content, BSTR name, BSTR content_type, BSTR content_id);
};

}  // namespace kv
