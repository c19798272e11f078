// The two kinds of part of a posted form: a field (CFormElement, a name and a
// value) and a file (CFormFile, with its file name and type). Both keep the
// raw bytes of the post and read them out through their code page, which the
// uploader may change after the parse.
//
// Fields are views into the body the parse copied (see FormScan): an object
// holds that copy for as long as it lives. A field's value becomes an owned
// string when a second part of the same name is joined to it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "automation/object.h"
#include "foundation/bstring.h"

namespace kv {

using automation::ObjectBase;

namespace upload {
class FormScan;
}

class CFormElement : public ObjectBase {
public:
    // A new, empty element holding one reference, its creator's.
    static CFormElement* New(int32_t codepage = 0);

    bstring m_bsName;
    bstring m_bsValue;
    int32_t m_nCodepage = 0;

    // Reads the part [start, start + length) of the walk's body: the name
    // from the first name="..." at or after start, the value from behind the
    // first blank line at or after start to the part's end. Both marks may
    // lie beyond the part; a blank line beyond it gives an empty value.
    // False when either mark is missing.
    bool ParseBuffer(upload::FormScan& scan, int32_t start, int32_t length);
    // Joins another part's value to this one: "first,second".
    void AppendValue(const bstring& value);

private:
    explicit CFormElement(int32_t codepage);
    std::shared_ptr<const std::string> m_pBody;
};

class CFormFile : public ObjectBase {
public:
    static CFormFile* New(int32_t codepage = 0);

    bstring m_bsName;
    bstring m_bsValue;  // the content
    bstring m_bsFilename;
    bstring m_bsContentType;
    int32_t m_nSize = 0;
    int32_t m_nCodepage = 0;

    // As CFormElement::ParseBuffer for the name and the content, then the
    // file name from filename="..." (only what follows its last backslash)
    // and the type from the first Content-Type: line at or after start,
    // wherever it stands. False when the name or the blank line is missing.
    bool ParseBuffer(upload::FormScan& scan, int32_t start, int32_t length);

    // Writes the content to dir_path/filename (the stored file name when
    // filename is empty), replacing a file of that name. The name must be
    // one plain path component: anything that could lead out of dir_path
    // (a slash, "." or "..", a NUL) gives false, as does an existing
    // symbolic link of that name. True when the whole content was written.
    HRESULT SaveToDisk(BSTR dir_path, BSTR filename, VARIANT_BOOL* out);
    // A new one-dimensional byte array with the content.
    HRESULT get_ValueAsArray(VARIANT* out);

private:
    explicit CFormFile(int32_t codepage);
    std::shared_ptr<const std::string> m_pBody;
};

}  // namespace kv
