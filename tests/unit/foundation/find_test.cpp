// FindBytes against std::search: fixed cases at the edges of the 16-byte
// stride, then random haystacks of few letters so that near-misses abound.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>

#include "foundation/find.h"

using kv::FindBytes;

namespace {

long Expected(const std::string& hay, const std::string& needle) {
    auto it = std::search(hay.begin(), hay.end(), needle.begin(), needle.end());
    return it == hay.end() && !needle.empty() ? -1 : long(it - hay.begin());
}

long Found(const std::string& hay, const std::string& needle) {
    const char* at = FindBytes(hay.data(), hay.size(), needle.data(), needle.size());
    return at ? long(at - hay.data()) : -1;
}

TEST(FindBytes, EdgesOfTheStride) {
    struct Case {
        std::string hay, needle;
        long at;
    } cases[] = {
        {"", "", 0},
        {"abc", "", 0},
        {"", "a", -1},
        {"ab", "abc", -1},
        {"abc", "abc", 0},
        {"x\r\n..y", "\r\n..", 1},
        {std::string(15, 'a') + "\r\n..", "\r\n..", 15},  // straddles the first block
        {std::string(16, 'a') + "\r\n..", "\r\n..", 16},
        {std::string(29, 'a') + "\r\n..", "\r\n..", 29},  // the last candidate, in the scalar tail
        {std::string(40, '\r') + "\r\n.", "\r\n..", -1},  // first byte everywhere, never the whole
        {"\r\n.x\r\n.x\r\n.x\r\n.x\r\n.x\r\n..", "\r\n..", 20},
        {std::string(100, '-') + "--bound", "--bound", 100},
        {std::string(64, 'z') + "q", "q", 64},
    };
    for (const Case& c : cases) EXPECT_EQ(Found(c.hay, c.needle), c.at) << c.hay << " / " << c.needle;
}

TEST(FindBytes, AgreesWithStdSearchOnRandomText) {
    std::mt19937 rng(20261122);
    const char alphabet[] = "\r\n.-ab";
    for (int round = 0; round < 20000; ++round) {
        std::string hay(rng() % 80, ' '), needle(1 + rng() % 6, ' ');
        for (char& c : hay) c = alphabet[rng() % 6];
        for (char& c : needle) c = alphabet[rng() % 6];
        ASSERT_EQ(Found(hay, needle), Expected(hay, needle)) << round;
    }
}

}  // namespace
