// Conversions checked against data written by others: Python's codecs for the
// single-byte pages, and the CJK sample pairs of Python's test suite.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "platform/codepage.h"

namespace kv::platform {
namespace {

struct OraclePage {
    int cp;
    const char* codec;
};

constexpr OraclePage kOraclePages[] = {
    {0, "cp1252"}, {1, "cp437"}, {2, "mac_roman"},
    {37, "cp037"}, {437, "cp437"}, {500, "cp500"}, {737, "cp737"}, {775, "cp775"},
    {850, "cp850"}, {852, "cp852"}, {855, "cp855"}, {857, "cp857"}, {858, "cp858"},
    {860, "cp860"}, {861, "cp861"}, {862, "cp862"}, {863, "cp863"}, {864, "cp864"},
    {865, "cp865"}, {866, "cp866"}, {869, "cp869"}, {874, "cp874"}, {875, "cp875"},
    {1026, "cp1026"}, {1140, "cp1140"}, {1250, "cp1250"}, {1251, "cp1251"}, {1252, "cp1252"},
    {1253, "cp1253"}, {1254, "cp1254"}, {1255, "cp1255"}, {1256, "cp1256"}, {1257, "cp1257"},
    {1258, "cp1258"}, {10000, "mac_roman"}, {10006, "mac_greek"}, {10007, "mac_cyrillic"},
    {10029, "mac_latin2"}, {10079, "mac_iceland"}, {10081, "mac_turkish"},
    {20866, "koi8_r"}, {21866, "koi8_u"},
    {28591, "iso8859_1"}, {28592, "iso8859_2"}, {28593, "iso8859_3"}, {28594, "iso8859_4"},
    {28595, "iso8859_5"}, {28596, "iso8859_6"}, {28597, "iso8859_7"}, {28598, "iso8859_8"},
    {28599, "iso8859_9"}, {28603, "iso8859_13"}, {28605, "iso8859_15"}, {28606, "iso8859_16"},
};

// codec -> 256 code points, -1 where the codec has no character for the byte.
std::map<std::string, std::vector<long>> RunPythonOracle() {
    std::map<std::string, std::vector<long>> result;
    std::string cmd =
        "/usr/bin/python3 -c '\n"
        "import sys\n"
        "for name in sys.argv[1:]:\n"
        "    row = []\n"
        "    for b in range(256):\n"
        "        try:\n"
        "            s = bytes([b]).decode(name)\n"
        "            row.append(ord(s) if len(s) == 1 else -1)\n"
        "        except UnicodeDecodeError:\n"
        "            row.append(-1)\n"
        "    print(name, *row)\n"
        "' ";
    for (const OraclePage& p : kOraclePages) cmd += std::string(p.codec) + " ";
    FILE* pipe = popen(cmd.c_str(), "r");
    if (!pipe) return result;
    std::string text;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, pipe)) > 0) text.append(buf, n);
    pclose(pipe);
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream fields(line);
        std::string name;
        fields >> name;
        std::vector<long> row;
        long v;
        while (fields >> v) row.push_back(v);
        if (row.size() == 256) result[name] = row;
    }
    return result;
}

TEST(CodepageOracle, SingleByteTablesMatchPythonCodecs) {
    if (!std::filesystem::exists("/usr/bin/python3")) GTEST_SKIP() << "no /usr/bin/python3";
    auto oracle = RunPythonOracle();
    ASSERT_FALSE(oracle.empty()) << "python3 produced nothing";
    std::string all;
    for (int b = 0; b < 256; ++b) all += static_cast<char>(b);

    for (const OraclePage& p : kOraclePages) {
        SCOPED_TRACE(testing::Message() << "code page " << p.cp << " (" << p.codec << ")");
        auto it = oracle.find(p.codec);
        ASSERT_NE(it, oracle.end());
        const std::vector<long>& want = it->second;

        std::u16string wide(256, u'\0');
        ASSERT_EQ(MultiByteToWideChar(p.cp, 0, all.data(), 256, wide.data(), 256), 256);
        for (int b = 0; b < 256; ++b) {
            long expected = want[b];
            // Bytes the codec leaves undefined: C1 control in 0x80..0x9F, else U+FFFD.
            if (expected < 0) expected = (b >= 0x80 && b <= 0x9F) ? b : 0xFFFD;
            EXPECT_EQ(static_cast<long>(wide[b]), expected) << "byte " << b;
        }

        // Back again: every defined character returns to its byte (the first
        // byte when two share one character).
        std::string bytes(256, '\0');
        bool used = false;
        ASSERT_EQ(WideCharToMultiByte(p.cp, 0, wide.data(), 256, bytes.data(), 256, nullptr, &used), 256);
        for (int b = 0; b < 256; ++b) {
            if (wide[b] == 0xFFFD) continue;
            int first = 0;
            while (wide[first] != wide[b]) ++first;
            EXPECT_EQ(static_cast<uint8_t>(bytes[b]), first) << "byte " << b;
        }
    }
}

std::string ReadFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

struct SamplePair {
    const char* stem;
    int cp;
    bool encode_back;  // false where several byte forms give the same text
    // Python composes the KS X 1001 eight-byte hangul sequences into
    // syllables; the code page keeps the filler and jamo, so the sample is
    // compared only up to this UTF-8 text.
    const char* compare_until = nullptr;
};

constexpr SamplePair kSamples[] = {
    {"big5", 950, true},       {"gb2312", 936, true},     {"gb2312", 20936, true},
    {"gbk", 936, true},        {"gb18030", 54936, true},  {"euc_jp", 20932, true},
    {"shift_jis", 932, true},  {"cp949", 949, true},      {"euc_kr", 51949, true, "\xE2\x98\x86"},
    {"iso2022_jp", 50220, true}, {"iso2022_kr", 50225, false}, {"johab", 1361, true},
};

TEST(CodepageOracle, CjkSamplesDecodeAndEncodeBack) {
    const std::filesystem::path dir = "/usr/lib/python3.11/test/cjkencodings";
    if (!std::filesystem::is_directory(dir)) GTEST_SKIP() << dir << " absent";
    for (const SamplePair& s : kSamples) {
        SCOPED_TRACE(testing::Message() << s.stem << " as " << s.cp);
        std::string encoded = ReadFile(dir / (std::string(s.stem) + ".txt"));
        std::string utf8 = ReadFile(dir / (std::string(s.stem) + "-utf8.txt"));
        ASSERT_FALSE(encoded.empty());
        ASSERT_FALSE(utf8.empty());

        int n = MultiByteToWideChar(s.cp, kMbErrInvalidChars * (s.cp < 50220 || s.cp > 50229),
                                    encoded.data(), static_cast<int>(encoded.size()), nullptr, 0);
        ASSERT_GT(n, 0) << "error " << GetLastError();
        std::u16string wide(n, u'\0');
        ASSERT_EQ(MultiByteToWideChar(s.cp, 0, encoded.data(), static_cast<int>(encoded.size()),
                                      wide.data(), n),
                  n);
        int m = WideCharToMultiByte(65001, 0, wide.data(), n, nullptr, 0);
        std::string got(m, '\0');
        ASSERT_EQ(WideCharToMultiByte(65001, 0, wide.data(), n, got.data(), m), m);
        if (s.compare_until) {
            size_t cut = utf8.find(s.compare_until);
            ASSERT_NE(cut, std::string::npos);
            EXPECT_EQ(got.substr(0, cut), utf8.substr(0, cut));
        } else {
            EXPECT_EQ(got, utf8);
        }

        if (!s.encode_back) continue;
        bool used = false;
        int k = WideCharToMultiByte(s.cp, 0, wide.data(), n, nullptr, 0, nullptr, &used);
        std::string back(k, '\0');
        ASSERT_EQ(WideCharToMultiByte(s.cp, 0, wide.data(), n, back.data(), k, nullptr, &used), k);
        EXPECT_FALSE(used);
        EXPECT_EQ(back, encoded);
    }
}

}  // namespace
}  // namespace kv::platform
