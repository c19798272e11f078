#include "foundation/trace.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "../support/trace_capture.h"

namespace kv {
namespace {

namespace fs = std::filesystem;

// The shared fixture's private trace directory, with the raw file and its
// prefixes checked here as well.
class TraceTest : public testing::TraceCapture {
protected:
    std::string File() const { return dir_ + "/korvane_debug.txt"; }
    std::string Contents() const {
        std::ifstream in(File(), std::ios::binary);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    // Text of each line, without its "hh:mm:ss tid\t" prefix and CR LF.
    std::vector<std::string> Texts() const {
        std::vector<std::string> out;
        std::string all = Contents();
        static const std::regex prefix("^[0-2][0-9]:[0-5][0-9]:[0-6][0-9] [0-9a-f]+\t");
        size_t pos = 0;
        while (pos < all.size()) {
            size_t end = all.find("\r\n", pos);
            if (end == std::string::npos) {
                ADD_FAILURE() << "line without CR LF";
                break;
            }
            std::string line = all.substr(pos, end - pos);
            std::smatch m;
            if (!std::regex_search(line, m, prefix)) {
                ADD_FAILURE() << "bad prefix: " << line;
            } else {
                out.push_back(line.substr(size_t(m.length(0))));
            }
            pos = end + 2;
        }
        return out;
    }
};

TEST_F(TraceTest, LinesAppearInOrderWithPrefix) {
    Trace("first");
    TraceBegin();
    TraceAppend("nPartCodePage=");
    TraceAppendInt(-65001);
    Trace();
    TraceBegin();
    Trace();
    Trace("ends in a break\n");
    EXPECT_EQ(Texts(),
              (std::vector<std::string>{"first", "nPartCodePage=-65001", "", "ends in a break\n"}));
}

TEST_F(TraceTest, ExplicitLengthWritesNulBytes) {
    const char bytes[] = {'a', 0, 'b', 'c'};
    Trace(bytes, 3);
    std::string all = Contents();
    ASSERT_GE(all.size(), 5u);
    EXPECT_EQ(all.substr(all.size() - 5), std::string("a\0b\r\n", 5));
}

TEST_F(TraceTest, WideTextIsWrittenInAnsiCodePage) {
    TraceWide(u"caf\u00e9 \u20ac");
    TraceBegin();
    TraceAppendWide(u"\u00fc=");
    TraceAppend("1");
    Trace();
    EXPECT_EQ(Texts(), (std::vector<std::string>{"caf\xE9 \x80", "\xFC=1"}));
}

TEST_F(TraceTest, ComposedLineIsCutInsteadOfOverflowing) {
    std::string chunk(1000, 'x');
    TraceBegin();
    for (int i = 0; i < 10; ++i) TraceAppend(chunk.c_str());
    std::u16string wide(5000, u'y');
    TraceAppendWide(wide.c_str());
    TraceAppendInt(123);
    Trace();
    auto texts = Texts();
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_EQ(texts[0], std::string(2047, 'x'));
}

TEST_F(TraceTest, FileIsPrivate) {
    Trace("x");
    struct stat st;
    ASSERT_EQ(stat(File().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(TraceTest, ComposedLinesOfThreadsDoNotMix) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 50; ++i) {
                TraceBegin();
                TraceAppend("thread=");
                TraceAppendInt(t);
                TraceAppend(" i=");
                TraceAppendInt(i);
                Trace();
            }
        });
    for (auto& th : threads) th.join();
    auto texts = Texts();
    EXPECT_EQ(texts.size(), 200u);
    static const std::regex shape("thread=[0-3] i=[0-9]+");
    for (const auto& text : texts) EXPECT_TRUE(std::regex_match(text, shape)) << text;
}

TEST(TraceRefusal, NothingIsWrittenWhereTheDirectoryIsUnsafe) {
    char pattern[] = "/tmp/kvtraceXXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    std::string base = pattern;
    struct Case {
        const char* name;
        std::function<std::string()> make;  // returns the directory to point at
    } cases[] = {
        {"absent", [&] { return base + "/missing"; }},
        {"world-writable",
         [&] {
             std::string d = base + "/open";
             fs::create_directory(d);
             chmod(d.c_str(), 0777);
             return d;
         }},
        {"group-writable",
         [&] {
             std::string d = base + "/group";
             fs::create_directory(d);
             chmod(d.c_str(), 0770);
             return d;
         }},
        {"symlinked directory",
         [&] {
             std::string real = base + "/real";
             fs::create_directory(real);
             chmod(real.c_str(), 0700);
             fs::create_directory_symlink(real, base + "/link");
             return base + "/link";
         }},
    };
    for (const auto& c : cases) {
        std::string dir = c.make();
        TraceSetDirectoryForTesting(dir.c_str());
        Trace("should not appear");
        TraceBegin();
        TraceAppend("nor this");
        Trace();
        EXPECT_FALSE(fs::exists(dir + "/korvane_debug.txt")) << c.name;
    }
    EXPECT_FALSE(fs::exists(base + "/real/korvane_debug.txt"));

    // A link in place of the file is not followed.
    std::string safe = base + "/safe";
    fs::create_directory(safe);
    chmod(safe.c_str(), 0700);
    std::string victim = base + "/victim";
    std::ofstream(victim) << "untouched";
    fs::create_symlink(victim, safe + "/korvane_debug.txt");
    TraceSetDirectoryForTesting(safe.c_str());
    Trace("must not reach the victim");
    std::ifstream in(victim);
    std::string contents;
    std::getline(in, contents);
    EXPECT_EQ(contents, "untouched");

    TraceSetDirectoryForTesting(nullptr);
    fs::remove_all(base);
}

}  // namespace
}  // namespace kv
