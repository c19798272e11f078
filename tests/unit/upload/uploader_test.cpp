#include "upload/uploader.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "../support/dispatch.h"
#include "../support/text.h"
#include "automation/bstr.h"
#include "automation/safearray.h"
#include "automation/variant.h"
#include "form_reference.h"
#include "shell/classes.h"

namespace kv {
namespace {

using kv::testing::GetProperty;
using kv::testing::GetText;
using kv::testing::Str;

using automation::Bstr;
namespace fs = std::filesystem;

// What the collections hold, in their order.
struct Parsed {
    bool ok = false;
    std::vector<std::pair<std::string, std::string>> elements;
    std::vector<reference::FormFile> files;
};

Parsed Collect(CUploader* up, bool ok) {
    Parsed p;
    p.ok = ok;
    for (auto& [name, e] : up->m_pFormElements->m_map) p.elements.emplace_back(Str(e->m_bsName), Str(e->m_bsValue));
    for (auto& [name, f] : up->m_pFormFiles->m_map)
        p.files.push_back({Str(f->m_bsName), Str(f->m_bsValue), Str(f->m_bsFilename), Str(f->m_bsContentType)});
    return p;
}

Parsed Parse(std::string_view body) {
    CUploader* up = CUploader::New();
    bool ok = up->ParseBody(bstring(body.data(), int32_t(body.size())));
    Parsed p = Collect(up, ok);
    up->Release();
    return p;
}

// The real walk against the plain model: same answer, same entries.
void ExpectMatchesModel(std::string_view body) {
    Parsed got = Parse(body);
    reference::Form want = reference::ParseForm(body);
    ASSERT_EQ(got.ok, want.ok);
    ASSERT_EQ(got.elements.size(), want.elements.size());
    for (const auto& [name, value] : want.elements) {
        auto it = std::find_if(got.elements.begin(), got.elements.end(),
                               [&](const auto& e) { return reference::SameName(e.first, name); });
        ASSERT_NE(it, got.elements.end()) << name;
        EXPECT_EQ(it->second, value) << name;
    }
    ASSERT_EQ(got.files.size(), want.files.size());
    for (const reference::FormFile& f : want.files) {
        auto it = std::find_if(got.files.begin(), got.files.end(),
                               [&](const auto& g) { return reference::SameName(g.name, f.name); });
        ASSERT_NE(it, got.files.end()) << f.name;
        EXPECT_EQ(it->name, f.name);
        EXPECT_EQ(it->value, f.value);
        EXPECT_EQ(it->filename, f.filename);
        EXPECT_EQ(it->content_type, f.content_type);
    }
}

std::string Field(const std::string& name, const std::string& value) {
    return "--B\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" + value + "\r\n";
}
std::string File(const std::string& name, const std::string& filename, const std::string& type,
                 const std::string& content) {
    std::string part = "--B\r\nContent-Disposition: form-data; name=\"" + name + "\"; filename=\"" + filename + "\"\r\n";
    if (!type.empty()) part += "Content-Type: " + type + "\r\n";
    return part + "\r\n" + content + "\r\n";
}
const std::string kEnd = "--B--\r\n";

using Elements = std::vector<std::pair<std::string, std::string>>;
using Files = std::vector<reference::FormFile>;  // name, value, filename, type

struct FormCase {
    const char* what;
    std::string body;
    bool ok;
    Elements elements;  // in the collection's order
    Files files;
};

const std::vector<FormCase>& FormCases() {
    static const std::vector<FormCase> cases = {
        {"fields and a file", Field("a", "1") + Field("bb", "two words") + File("f", "x.txt", "text/plain", "data") + kEnd,
         true, {{"a", "1"}, {"bb", "two words"}}, {{"f", "data", "x.txt", "text/plain"}}},
        {"blank value", Field("empty", "") + kEnd, true, {{"empty", ""}}, {}},
        {"empty file input gives no entry", File("f", "", "application/octet-stream", "") + kEnd, true, {}, {}},
        {"Windows path is cut at the last backslash", File("f", "C:\\dir\\a.txt", "text/plain", "x") + kEnd, true, {},
         {{"f", "x", "a.txt", "text/plain"}}},
        {"forward slashes stay", File("f", "/dir/a.txt", "text/plain", "x") + kEnd, true, {},
         {{"f", "x", "/dir/a.txt", "text/plain"}}},
        {"same name joins values", Field("s", "a") + Field("s", "b") + Field("S", "c") + kEnd, true, {{"s", "a,b,c"}}, {}},
        {"same file name keeps the first", File("f", "1.txt", "text/plain", "one") + File("f", "2.txt", "text/plain", "two") + kEnd,
         true, {}, {{"f", "one", "1.txt", "text/plain"}}},
        {"order is by length, then ignoring case", Field("ccc", "3") + Field("B", "2") + Field("a", "1") + kEnd, true,
         {{"a", "1"}, {"B", "2"}, {"ccc", "3"}}, {}},
        {"no CR LF", "--B no line end", false, {}, {}},
        {"no boundary repeats", "--B\r\nnothing else", true, {}, {}},
        {"empty first line finds nothing", "\r\n" + Field("a", "1") + kEnd, true, {}, {}},
        {"unterminated last part is dropped", Field("a", "1") + Field("b", "2"), true, {{"a", "1"}}, {}},
        {"binary content holding the boundary ends there",
         File("f", "bin", "application/octet-stream", std::string("\x00\x01\r\n--B tail", 12)) + kEnd, true, {},
         {{"f", std::string("\x00\x01", 2), "bin", "application/octet-stream"}}},
        {"filename before name names the field after the file",
         "--B\r\nContent-Disposition: form-data; filename=\"up.txt\"; name=\"f\"\r\n\r\nx\r\n" + kEnd, true, {},
         {{"up.txt", "x", "up.txt", ""}}},
        {"a file without a type takes a later part's",
         File("f", "a.bin", "", "x") + File("g", "b.png", "image/png", "y") + kEnd, true, {},
         {{"f", "x", "a.bin", "image/png"}, {"g", "y", "b.png", "image/png"}}},
        {"a part without a blank line takes its value from behind a later one",
         "--B\r\nContent-Disposition: form-data; name=\"a\"\r\n--B\r\nname=\"b\"\r\n\r\nv\r\n" + kEnd, true,
         {{"a", ""}, {"b", "v"}}, {}},
        {"a part without a name takes the next name", "--B\r\n\r\n\r\nv\r\n" + Field("n", "w") + kEnd, true,
         {{"n", "v,w"}}, {}},
        {"an unclosed name runs to the end of the body", "--B\r\nname=\"abc\r\n\r\nv\r\n--B--", true,
         {{"abc\r\n\r\nv\r\n--B--", "v"}}, {}},
        {"filename at the part's first byte is a field", "--B\r\nfilename=\"x\"\r\n\r\nv\r\n" + kEnd, true,
         {{"x", "v"}}, {}},
        {"a boundary in the epilogue makes no part", Field("a", "1") + kEnd + "trailing\r\n--B", true,
         {{"a", "1"}}, {}},
    };
    return cases;
}

class UploaderTest : public ::testing::Test {
protected:
    void SetUp() override { shell::RegisterCatalogue(); }
};

TEST_F(UploaderTest, ParseBody_Table) {
    for (const FormCase& c : FormCases()) {
        SCOPED_TRACE(c.what);
        Parsed got = Parse(c.body);
        EXPECT_EQ(got.ok, c.ok);
        EXPECT_EQ(got.elements, c.elements);
        ASSERT_EQ(got.files.size(), c.files.size());
        for (size_t i = 0; i < c.files.size(); ++i) {
            EXPECT_EQ(got.files[i].name, c.files[i].name);
            EXPECT_EQ(got.files[i].value, c.files[i].value);
            EXPECT_EQ(got.files[i].filename, c.files[i].filename);
            EXPECT_EQ(got.files[i].content_type, c.files[i].content_type);
        }
        ExpectMatchesModel(c.body);
    }
}

// Bodies built from the marks the walk looks for, so that parts borrow
// names, blank lines and types from each other in every way.
TEST_F(UploaderTest, ParseBody_RandomBodies_MatchTheModel) {
    const char* tokens[] = {"--B", "--B--", "\r\n", "\r\n\r\n", "name=\"", "filename=\"", "\"", "\\",
                            "Content-Type:", "Content-Type: text/plain", "a", "B", "xy", " ", "--"};
    std::mt19937 rng(12345);
    for (int round = 0; round < 4000; ++round) {
        std::string body = rng() % 4 ? "--B\r\n" : "";
        size_t n = rng() % 40;
        for (size_t i = 0; i < n; ++i) body += tokens[rng() % std::size(tokens)];
        SCOPED_TRACE(body);
        ExpectMatchesModel(body);
        if (HasFatalFailure()) return;
    }
}

TEST_F(UploaderTest, HeaderLinesOfMegabytes_AreKeptWhole) {
    std::string name(3 << 20, 'n');
    std::string type(2 << 20, 't');
    Parsed got = Parse(Field(name, "v") + File("f", "a.txt", type, "c") + kEnd);
    ASSERT_EQ(got.elements.size(), 1u);
    EXPECT_EQ(got.elements[0].first, name);
    ASSERT_EQ(got.files.size(), 1u);
    EXPECT_EQ(got.files[0].content_type, type);
}

// Many parts that all borrow one far name, or one unterminated type line:
// each is answered from what the walk already found, so this finishes; a
// walk that searched afresh for every part would not.
TEST_F(UploaderTest, ManyPartsBorrowingFarMarks_GiveTheModelsAnswer) {
    std::string body = "--B\r\n";
    for (int i = 0; i < 50000; ++i) body += "--B\r\n";
    body += "\r\n\r\nname=\"" + std::string(1 << 20, 'x');
    Parsed got = Parse(body);
    ASSERT_EQ(got.elements.size(), 1u);
    EXPECT_EQ(got.elements[0].first.size(), size_t(1 << 20));
    EXPECT_EQ(got.elements[0].second, std::string(50000 - 1, ','));

    // Every part a file whose type line runs on to the end of the body: the
    // types share the body's bytes instead of each holding a copy.
    std::string files = "--B\r\n";
    for (int i = 0; i < 20000; ++i) files += "--BXXname=\"" + std::to_string(i) + "\" filename=\"f\" Content-Type: ";
    files += "\r\n\r\n--B";
    CUploader* up = CUploader::New();
    ASSERT_TRUE(up->ParseBody(bstring(files.data(), int32_t(files.size()))));
    ASSERT_EQ(up->m_pFormFiles->m_map.size(), 20000u);
    VARIANT zero = automation::MakeBstr("0");
    IDispatch* item = nullptr;
    ASSERT_EQ(up->m_pFormFiles->get_Item(zero, &item), S_OK);
    VariantClear(&zero);
    std::string type = Str(static_cast<CFormFile*>(item)->m_bsContentType);
    item->Release();
    EXPECT_EQ(type.size(), files.rfind("\r\n\r\n") - (files.find("Content-Type:") + 14));
    EXPECT_EQ(type.substr(type.size() - 14), "Content-Type: ");
    size_t total = 0;
    for (auto& [name, f] : up->m_pFormFiles->m_map) total += size_t(f->m_bsContentType.nSize);
    EXPECT_GT(total, files.size() * 100) << "nested windows of one line, far more than the body";
    up->Release();
}

// ---- the automation surface ----------------------------------------------------------

VARIANT Bytes(std::string_view body) {
    VARIANT v;
    VariantInit(&v);
    v.vt = VT_ARRAY | VT_UI1;
    v.parray = SafeArrayCreateVector(VT_UI1, 0, uint32_t(body.size()));
    void* data = nullptr;
    SafeArrayAccessData(v.parray, &data);
    if (!body.empty()) std::memcpy(data, body.data(), body.size());
    SafeArrayUnaccessData(v.parray);
    return v;
}

class UploaderObjectTest : public UploaderTest {
protected:
    void SetUp() override {
        UploaderTest::SetUp();
        IDispatch* made = nullptr;
        ASSERT_EQ(automation::Catalogue::Instance().CreateObject("Korvane.Uploader", &made), S_OK);
        up_ = static_cast<CUploader*>(made);
    }
    void TearDown() override { up_->Release(); }

    bool ParseRequest(const VARIANT& v) {
        VARIANT_BOOL ok = 7;
        EXPECT_EQ(up_->ParseRequest(v, &ok), S_OK);
        return ok == VARIANT_TRUE;
    }
    bool ParseBytes(std::string_view body) {
        VARIANT v = Bytes(body);
        bool ok = ParseRequest(v);
        VariantClear(&v);
        return ok;
    }
    int32_t Count(bool files) {
        int32_t n = -1;
        files ? up_->m_pFormFiles->get_Count(&n) : up_->m_pFormElements->get_Count(&n);
        return n;
    }
    // Item of the fields, and the Value of what it gives; the status too.
    HRESULT ItemValue(const VARIANT& index, std::string* value) {
        IDispatch* item = nullptr;
        HRESULT hr = up_->m_pFormElements->get_Item(index, &item);
        if (SUCCEEDED(hr)) {
            *value = GetText(item, "Value");
            item->Release();
        }
        return hr;
    }

    CUploader* up_ = nullptr;
};

TEST_F(UploaderObjectTest, ParseRequest_TakesOnlyByteArrays) {
    ASSERT_TRUE(ParseBytes(Field("a", "1") + kEnd));
    VARIANT text = automation::MakeBstr("--B\r\n");
    EXPECT_FALSE(ParseRequest(text));
    VariantClear(&text);
    VARIANT number = automation::MakeI4(8209);
    EXPECT_FALSE(ParseRequest(number));
    EXPECT_EQ(Count(false), 1) << "a wrong type leaves the collections";

    VARIANT null_array;
    VariantInit(&null_array);
    null_array.vt = VT_ARRAY | VT_UI1;
    EXPECT_FALSE(ParseRequest(null_array));
    EXPECT_EQ(Count(false), 0) << "a null array empties them";

    ASSERT_TRUE(ParseBytes(Field("a", "1") + kEnd));
    EXPECT_FALSE(ParseBytes("no line end"));
    EXPECT_EQ(Count(false), 0);
    EXPECT_FALSE(ParseBytes(""));
}

TEST_F(UploaderObjectTest, ParseRequest_ByReferenceVariant_IsFollowed) {
    VARIANT body = Bytes(Field("a", "1") + File("f", "x", "t/t", "c") + kEnd);
    VARIANT ref;
    VariantInit(&ref);
    ref.vt = VT_BYREF | VT_VARIANT;
    ref.pvarVal = &body;
    EXPECT_TRUE(ParseRequest(ref));
    VariantClear(&body);  // the objects own their bytes
    EXPECT_EQ(Count(false), 1);
    ASSERT_EQ(Count(true), 1);
    EXPECT_EQ(Str(up_->m_pFormFiles->m_map.begin()->second->m_bsValue), "c");
}

TEST_F(UploaderObjectTest, SecondParse_ReplacesTheFirst) {
    ASSERT_TRUE(ParseBytes(Field("a", "1") + Field("b", "2") + kEnd));
    IDispatch* kept = nullptr;
    VARIANT one = automation::MakeI4(1);
    ASSERT_EQ(up_->m_pFormElements->get_Item(one, &kept), S_OK);
    ASSERT_TRUE(ParseBytes(Field("c", "3") + kEnd));
    EXPECT_EQ(Count(false), 1);
    EXPECT_EQ(GetText(kept, "Value"), "1") << "an object the script holds outlives the parse";
    kept->Release();
}

TEST_F(UploaderObjectTest, Item_ByNameAndPosition) {
    ASSERT_TRUE(ParseBytes(Field("bb", "2") + Field("a", "1") + kEnd));
    struct {
        VARIANT index;
        HRESULT hr;
        const char* value;
    } cases[] = {
        {automation::MakeI4(1), S_OK, "1"},
        {automation::MakeI4(2), S_OK, "2"},
        {automation::MakeR8(2.0), S_OK, "2"},
        {automation::MakeBstr("BB"), S_OK, "2"},
        {automation::MakeBstr("missing"), S_OK, ""},
        {automation::MakeBstr("1"), S_OK, ""},  // a string is always a name
        {automation::MakeI4(0), E_INVALIDARG, nullptr},
        {automation::MakeI4(3), E_INVALIDARG, nullptr},
        {automation::MakeI4(-1), E_INVALIDARG, nullptr},
    };
    for (auto& c : cases) {
        std::string value;
        EXPECT_EQ(ItemValue(c.index, &value), c.hr) << c.index.vt;
        if (c.value) {
            EXPECT_EQ(value, c.value);
        }
        VariantClear(&c.index);
    }
    EXPECT_EQ(Count(false), 2) << "asking for a missing name adds nothing";

    VARIANT name = automation::MakeBstr("a");
    VARIANT ref;
    VariantInit(&ref);
    ref.vt = VT_BYREF | VT_VARIANT;
    ref.pvarVal = &name;
    std::string value;
    EXPECT_EQ(ItemValue(ref, &value), S_OK);
    EXPECT_EQ(value, "1");
    VariantClear(&name);
}

TEST_F(UploaderObjectTest, Codepage_ReachesObjectsParsedEarlier) {
    std::string utf8 = "\xc3\xa9t\xc3\xa9";  // "été"
    ASSERT_TRUE(ParseBytes(Field(utf8, utf8) + File("f", utf8 + ".txt", "text/plain", utf8) + kEnd));
    IDispatch* field = nullptr;
    VARIANT one = automation::MakeI4(1);
    ASSERT_EQ(up_->m_pFormElements->get_Item(one, &field), S_OK);
    EXPECT_EQ(GetText(field, "Value"), "\xc3\x83\xc2\xa9t\xc3\x83\xc2\xa9") << "read as 1252 first";

    ASSERT_EQ(kv::testing::PutProperty(up_, "Codepage", automation::MakeI4(65001)), S_OK);
    EXPECT_EQ(GetProperty(up_, "Codepage").lVal, 65001);
    EXPECT_EQ(GetText(field, "Value"), utf8);
    EXPECT_EQ(GetText(field, "Name"), utf8);
    field->Release();

    CFormFile* file = up_->m_pFormFiles->m_map.begin()->second;
    EXPECT_EQ(GetText(file, "Filename"), utf8 + ".txt");
    EXPECT_EQ(GetText(file, "Value"), utf8);

    // Names asked by Item go through the same code page.
    std::string value;
    VARIANT name = automation::MakeBstr(utf8.c_str());
    EXPECT_EQ(ItemValue(name, &value), S_OK);
    EXPECT_EQ(value, utf8);
    VariantClear(&name);
}

TEST_F(UploaderObjectTest, FormFile_ValueAsArray_AndSize) {
    std::string content("\x00\xff\r\n\x80z", 6);
    ASSERT_TRUE(ParseBytes(File("f", "b.bin", "application/octet-stream", content) + kEnd));
    CFormFile* file = up_->m_pFormFiles->m_map.begin()->second;
    EXPECT_EQ(GetProperty(file, "Size").lVal, 6);
    VARIANT array;
    VariantInit(&array);
    ASSERT_EQ(file->get_ValueAsArray(&array), S_OK);
    ASSERT_EQ(array.vt, VT_ARRAY | VT_UI1);
    ASSERT_EQ(array.parray->rgsabound[0].cElements, 6u);
    EXPECT_EQ(std::memcmp(array.parray->pvData, content.data(), 6), 0);
    VariantClear(&array);
}

TEST_F(UploaderObjectTest, MemberTables_AgreeWithTheirBindings) {
    for (const char* progid : {"Korvane.Uploader", "Korvane.FromFile", "Korvane.FormElement",
                               "Korvane.FormElements", "Korvane.FormFiles"}) {
        const automation::ClassInfo* cls = automation::Catalogue::Instance().FindProgID(progid);
        ASSERT_NE(cls, nullptr) << progid;
        EXPECT_EQ(cls->iface->Validate(), "") << progid;
        IDispatch* made = nullptr;
        ASSERT_EQ(automation::Catalogue::Instance().CreateObject(progid, &made), S_OK) << progid;
        made->Release();
    }
}

// ---- SaveToDisk ----------------------------------------------------------------------

class SaveToDiskTest : public UploaderObjectTest {
protected:
    void SetUp() override {
        UploaderObjectTest::SetUp();
        root_ = fs::temp_directory_path() / ("kv_upload_" + std::to_string(getpid()) + "_" +
                                             ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(root_);
        fs::create_directories(root_ / "dir");
    }
    void TearDown() override {
        fs::remove_all(root_);
        UploaderObjectTest::TearDown();
    }
    // Parses one file part named as given and saves it into root/dir.
    bool Save(const std::string& stored, const char* given, const std::string& dir_suffix = "") {
        EXPECT_TRUE(ParseBytes(File("f", stored, "text/plain", "content!") + kEnd));
        if (up_->m_pFormFiles->m_map.empty()) return false;
        CFormFile* file = up_->m_pFormFiles->m_map.begin()->second;
        VARIANT_BOOL ok = 7;
        std::string dir = (root_ / "dir").string() + dir_suffix;
        EXPECT_EQ(file->SaveToDisk(Bstr::FromUtf8(dir).get(), Bstr::FromUtf8(given).get(), &ok), S_OK);
        return ok == VARIANT_TRUE;
    }
    std::string Read(const fs::path& p) {
        std::ifstream in(p, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    // Every regular file under root, relative to it.
    std::vector<std::string> FilesUnderRoot() {
        std::vector<std::string> all;
        for (auto& e : fs::recursive_directory_iterator(root_))
            if (!e.is_directory()) all.push_back(fs::relative(e.path(), root_).string());
        std::sort(all.begin(), all.end());
        return all;
    }

    fs::path root_;
};

TEST_F(SaveToDiskTest, WritesTheStoredOrGivenName) {
    EXPECT_TRUE(Save("C:\\Users\\me\\report.txt", ""));
    EXPECT_EQ(Read(root_ / "dir" / "report.txt"), "content!");
    EXPECT_TRUE(Save("report.txt", "other.bin", "/"));
    EXPECT_EQ(Read(root_ / "dir" / "other.bin"), "content!");
    std::ofstream(root_ / "dir" / "old.txt") << "a much longer previous content";
    EXPECT_TRUE(Save("old.txt", ""));
    EXPECT_EQ(Read(root_ / "dir" / "old.txt"), "content!") << "replaced, not appended";
    EXPECT_EQ(FilesUnderRoot(), (std::vector<std::string>{"dir/old.txt", "dir/other.bin", "dir/report.txt"}));
}

TEST_F(SaveToDiskTest, NamesThatLeaveTheDirectory_WriteNothing) {
    fs::create_directories(root_ / "dir" / "sub");
    struct {
        std::string stored;
        const char* given;
    } cases[] = {
        {"..", ""},           {".", ""},
        {"x.txt", ".."},      {"/dir/a.txt", ""},
        {"x.txt", "../escape.txt"}, {"x.txt", "/tmp/escape.txt"},
        {"x.txt", "sub/a.txt"},     {"../../escape.txt", ""},
    };
    for (const auto& c : cases) EXPECT_FALSE(Save(c.stored, c.given)) << c.stored << " / " << c.given;
    EXPECT_EQ(FilesUnderRoot(), std::vector<std::string>{});
}

TEST_F(SaveToDiskTest, LinksAndSpecialFiles_AreNotFollowed) {
    fs::create_symlink(root_ / "outside.txt", root_ / "dir" / "link.txt");
    EXPECT_FALSE(Save("link.txt", ""));
    EXPECT_FALSE(fs::exists(root_ / "outside.txt"));
    ASSERT_EQ(mkfifo((root_ / "dir" / "pipe").c_str(), 0600), 0);
    EXPECT_FALSE(Save("pipe", "")) << "a FIFO neither blocks nor takes the data";
}

TEST_F(SaveToDiskTest, MissingOrEmptyDirectory_GivesFalse) {
    EXPECT_FALSE(Save("a.txt", "", "/no/such/dir"));
    ASSERT_TRUE(ParseBytes(File("f", "a.txt", "text/plain", "x") + kEnd));
    VARIANT_BOOL ok = 7;
    up_->m_pFormFiles->m_map.begin()->second->SaveToDisk(nullptr, nullptr, &ok);
    EXPECT_EQ(ok, VARIANT_FALSE);
}

}  // namespace
}  // namespace kv
