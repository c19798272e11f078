#include "upload/uploader.h"

#include "automation/fields.h"
#include "automation/safearray.h"
#include "foundation/trace.h"
#include "shell/classes.h"
#include "shell/identifiers.h"
#include "upload/form_scan.h"

namespace kv {

using automation::Arg;
using automation::Bind;
using automation::Field;
using automation::FieldGet;
using automation::Method;
using upload::FormScan;

namespace {

constexpr std::string_view kFilenameMark = "filename=\"";

}  // namespace

CUploader::CUploader()
    : ObjectBase(shell::kUploaderClass),
      m_pFormElements(CFormElements::New()),
      m_pFormFiles(CFormFiles::New()) {}

CUploader* CUploader::New() { return new CUploader(); }

CUploader::~CUploader() {
    m_pFormElements->Release();
    m_pFormFiles->Release();
}

HRESULT CUploader::ParseRequest(const VARIANT& pvt, VARIANT_BOOL* out) {
    *out = VARIANT_FALSE;
    Trace("ParseRequest 1");
    // A script passing a variable hands it over by reference.
    const VARIANT* arg = &pvt;
    if (arg->vt == (VT_BYREF | VT_VARIANT) && arg->pvarVal) arg = arg->pvarVal;
    if (arg->vt != (VT_ARRAY | VT_UI1)) return S_OK;

    Trace("ParseRequest 2");
    m_pFormElements->Clear();
    m_pFormFiles->Clear();

    SAFEARRAY* array = arg->parray;
    if (!array) {
        Trace("ParseRequest 3.1");
        return S_OK;
    }

    Trace("ParseRequest 4a");
    // A one-dimensional array of bytes, seen in place.
    if (array->cDims != 1 || array->cbElements != 1) return S_OK;
    uint32_t count = array->rgsabound[0].cElements;
    if (count > uint32_t(INT32_MAX - 1) || (count && !array->pvData)) return S_OK;
    void* data = nullptr;
    if (FAILED(SafeArrayAccessData(array, &data))) return S_OK;
    bstring body;
    body.borrow(static_cast<const char*>(data), int32_t(count));
    Trace("ParseRequest 4b");

    bool ok = ParseBody(body);
    SafeArrayUnaccessData(array);
    *out = ok ? VARIANT_TRUE : VARIANT_FALSE;
    return S_OK;
}

bool CUploader::ParseBody(const bstring& body) {
    m_pFormElements->Clear();
    m_pFormFiles->Clear();
    Trace("ParseRequest 6");
    if (!SetBoundaryFormBuffer(body)) return false;
    Trace("ParseRequest 7");
    FormScan scan(body.pData, body.nSize > 0 ? body.nSize : 0, m_bsBoundary.nSize);
    InitializeArray(scan);
    return true;
}

bool CUploader::SetBoundaryFormBuffer(const bstring& buffer) {
    int32_t line_end = buffer.find("\r\n");
    if (line_end < 0) return false;
    m_bsBoundary.assign(buffer.pData, line_end);
    return true;
}

// --boundary\r\n
// Content-Disposition: form-data; name="field"\r\n
// \r\n
// value\r\n
// --boundary\r\n
// Content-Disposition: form-data; name="file"; filename="a.txt"\r\n
// Content-Type: text/plain\r\n
// \r\n
// content\r\n
// --boundary--\r\n
void CUploader::InitializeArray(FormScan& scan) {
    const int64_t size = scan.size();
    const int32_t boundary_size = scan.boundary_size();
    int32_t position = 0;
    int32_t nInfiniteLoopLimiterMax = 100000000;

    // A run of parts without a name of their own all take the same later
    // name=" and so the same entry: remember it instead of looking it up
    // again, which for a long name would cost its length each time.
    CFormElement* last_element = nullptr;
    const char* last_name = nullptr;
    int32_t last_name_size = -1;

    for (;;) {
        if (--nInfiniteLoopLimiterMax < 0) {
            Trace("InitializeArray nInfiniteLoopLimiterMax!");
            break;
        }
        int32_t boundary = scan.FindBoundary(position);
        if (boundary < 0) break;
        // Two bytes behind the boundary: its CR LF, or the "--" of the last one.
        int64_t behind = int64_t(boundary) + boundary_size + 2;
        int32_t start = int32_t(behind < size ? behind : size);
        position = start;
        int32_t next = scan.FindBoundary(start);
        if (next < 0) break;
        int32_t length = next - 2 - start;  // the CR LF before the boundary is not the part's

        int32_t mark = scan.FilenameMarkAt(start);
        bool is_file = mark > start && int64_t(mark) + int64_t(kFilenameMark.size()) <= int64_t(start) + length;
        if (!is_file) {
            CFormElement* element = CFormElement::New(m_nCodepage);
            if (!element->ParseBuffer(scan, start, length)) {
                element->Release();
                continue;
            }
            if (element->m_bsName.pData == last_name && element->m_bsName.nSize == last_name_size) {
                last_element->AppendValue(element->m_bsValue);
                element->Release();
                continue;
            }
            last_name = element->m_bsName.pData;
            last_name_size = element->m_bsName.nSize;
            last_element = m_pFormElements->Add(element);
        } else {
            CFormFile* file = CFormFile::New(m_nCodepage);
            // A file input left empty posts filename="": no entry.
            if (file->ParseBuffer(scan, start, length) && file->m_bsFilename.nSize > 0)
                m_pFormFiles->Add(file);
            else
                file->Release();
        }
    }
}

void CUploader::CodepageChanged() {
    m_pFormElements->SetCodepage(m_nCodepage);
    m_pFormFiles->SetCodepage(m_nCodepage);
}

namespace shell {

const InterfaceInfo kIUploader("IUploader", IID_IUploader, {
    Method(1, "ParseRequest", VT_BOOL, Bind<&CUploader::ParseRequest>(), {Arg("pvt", VT_VARIANT)}),
    FieldGet<CUploader, &CUploader::m_pFormElements>(2, "FormElements"),
    FieldGet<CUploader, &CUploader::m_pFormFiles>(3, "FormFiles"),
    Field<CUploader, &CUploader::m_nCodepage, nullptr, &CUploader::CodepageChanged>(4, "Codepage"),
});

}  // namespace shell
}  // namespace kv
