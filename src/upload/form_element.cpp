#include "upload/form_element.h"

#include "automation/fields.h"
#include "foundation/trace.h"
#include "message/files.h"
#include "platform/dir_file.h"
#include "shell/classes.h"
#include "shell/identifiers.h"
#include "upload/form_scan.h"

namespace kv {

using automation::Arg;
using automation::Bind;
using automation::FieldGet;
using automation::InCodepage;
using automation::Method;
using automation::Opt;
using automation::Property;
using upload::FormScan;
using upload::Span;

namespace {

// The value of a part: from behind the first blank line at or after start
// to the part's end.
bool ValueOf(FormScan& scan, int32_t start, int32_t length, Span& value) {
    int32_t from = scan.ValueStartAt(start);
    if (from < 0) return false;
    value = {from, start + length};
    return true;
}

}  // namespace

// ---- CFormElement ------------------------------------------------------------------

CFormElement::CFormElement(int32_t codepage) : ObjectBase(shell::kFormElementClass), m_nCodepage(codepage) {}
CFormElement* CFormElement::New(int32_t codepage) { return new CFormElement(codepage); }

bool CFormElement::ParseBuffer(FormScan& scan, int32_t start, int32_t length) {
    Span name, value;
    if (!scan.NameAt(start, name)) return false;
    if (!ValueOf(scan, start, length, value)) return false;
    m_pBody = scan.body();
    m_bsName = scan.View(name);
    m_bsValue = scan.View(value);
    return true;
}

void CFormElement::AppendValue(const bstring& value) {
    // Many parts of one name (a long multi-selection) join here: grow by
    // doubling, since reserve itself is exact.
    int64_t need = int64_t(m_bsValue.nSize) + 1 + value.nSize;
    if (need > INT32_MAX - 1) return;
    if (m_bsValue.is_view() || m_bsValue.nCapacity < need) {
        int64_t room = m_bsValue.is_view() ? need : int64_t(m_bsValue.nCapacity) * 2;
        if (room < need) room = need;
        if (room > INT32_MAX - 1) room = INT32_MAX - 1;
        m_bsValue.reserve_keep(int32_t(room), m_bsValue.nSize);
    }
    m_bsValue += ',';
    m_bsValue.append(value);
}

// ---- CFormFile ---------------------------------------------------------------------

CFormFile::CFormFile(int32_t codepage) : ObjectBase(shell::kFormFileClass), m_nCodepage(codepage) {}
CFormFile* CFormFile::New(int32_t codepage) { return new CFormFile(codepage); }

bool CFormFile::ParseBuffer(FormScan& scan, int32_t start, int32_t length) {
    Trace("CFormFile.ParseBuffer 1");
    Span name, value;
    if (!scan.NameAt(start, name)) return false;
    Trace("CFormFile.ParseBuffer 2");
    if (!ValueOf(scan, start, length, value)) return false;
    Trace("CFormFile.ParseBuffer 3");
    m_pBody = scan.body();
    m_bsName = scan.View(name);
    m_bsValue = scan.View(value);

    Span filename;
    if (scan.FilenameAt(start, filename)) {
        // Old browsers send the whole client path: "C:\dir\a.txt" -> "a.txt".
        // A forward slash is left alone.
        int32_t cut = scan.View(filename).rfind('\\');
        if (cut >= 0) filename.start += cut + 1;
        m_bsFilename = scan.View(filename);
    }
    Trace("CFormFile.ParseBuffer 4");

    Span type;
    if (scan.ContentTypeAt(start, type)) m_bsContentType = scan.View(type);
    Trace("CFormFile.ParseBuffer 5");

    m_nSize = m_bsValue.nSize;
    Trace("CFormFile.ParseBuffer 6");
    return true;
}

HRESULT CFormFile::SaveToDisk(BSTR dir_path, BSTR filename, VARIANT_BOOL* out) {
    wbstring dir, name;
    dir.assign_bstr(dir_path);
    name.assign_bstr(filename);
    if (name.nSize <= 0) name.import_bstring(m_bsFilename, m_nCodepage);
    size_t size = size_t(m_bsValue.nSize > 0 ? m_bsValue.nSize : 0);
    bool ok = platform::WriteFileInDirectory(dir, name, m_bsValue.pData, size);
    *out = ok ? VARIANT_TRUE : VARIANT_FALSE;
    return S_OK;
}

HRESULT CFormFile::get_ValueAsArray(VARIANT* out) { return BytesToArrayVariant(m_bsValue, out); }

// ---- member tables -------------------------------------------------------------------

namespace shell {

const InterfaceInfo kIFormElement("IFormElement", IID_IFormElement, {
    FieldGet<CFormElement, InCodepage<&CFormElement::m_bsName, &CFormElement::m_nCodepage>>(1, "Name"),
    FieldGet<CFormElement, InCodepage<&CFormElement::m_bsValue, &CFormElement::m_nCodepage>>(0, "Value"),
});

const InterfaceInfo kIFormFile("IFormFile", IID_IFormFile, {
    FieldGet<CFormFile, InCodepage<&CFormFile::m_bsName, &CFormFile::m_nCodepage>>(1, "Name"),
    FieldGet<CFormFile, InCodepage<&CFormFile::m_bsValue, &CFormFile::m_nCodepage>>(2, "Value"),
    FieldGet<CFormFile, InCodepage<&CFormFile::m_bsFilename, &CFormFile::m_nCodepage>>(3, "Filename"),
    FieldGet<CFormFile, &CFormFile::m_nSize>(4, "Size"),
    FieldGet<CFormFile, InCodepage<&CFormFile::m_bsContentType, &CFormFile::m_nCodepage>>(5, "ContentType"),
    Method(6, "SaveToDisk", VT_BOOL, Bind<&CFormFile::SaveToDisk>(),
           {Arg("DirPath", VT_BSTR), Opt("Filename", VT_BSTR, "")}),
    Property(7, "ValueAsArray", VT_VARIANT, Bind<&CFormFile::get_ValueAsArray>()),
});

}  // namespace shell
}  // namespace kv
