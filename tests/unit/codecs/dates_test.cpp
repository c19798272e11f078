#include "codecs/dates.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <random>
#include <string>

#include <unistd.h>

namespace kv {
namespace {

using platform::SystemTime;

// Expected DATE values below were computed outside this code, from the count
// of days since 1899-12-30.
constexpr double kDateTolerance = 1e-7;  // well under a tenth of a second

// The process zone, pinned for one test and restored after it.
class ZoneScope {
public:
    explicit ZoneScope(const char* tz) {
        const char* old = std::getenv("TZ");
        had_ = old != nullptr;
        if (had_) old_ = old;
        setenv("TZ", tz, 1);
        tzset();
    }
    ~ZoneScope() {
        if (had_)
            setenv("TZ", old_.c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }

private:
    bool had_ = false;
    std::string old_;
};

// "Now", pinned for one test.
class NowScope {
public:
    explicit NowScope(int64_t ticks) { platform::PinCurrentTimeForTesting(ticks); }
    ~NowScope() { platform::PinCurrentTimeForTesting(-1); }
};

constexpr int64_t kJan5_2009_040309 = 128756017890000000;  // Mon 2009-01-05 04:03:09 UTC
constexpr int64_t kJul1_2009_1000 = 128909160000000000;    // Wed 2009-07-01 10:00:00 UTC
constexpr int64_t kUnixEpoch = 116444736000000000;
constexpr int64_t kJan1_1900 = 94354848000000000;

constexpr const char* kCentralEurope = "CET-1CEST,M3.5.0,M10.5.0/3";
constexpr const char* kUsEastern = "EST5EDT,M3.2.0,M11.1.0";
constexpr const char* kNewfoundland = "NST3:30NDT,M3.2.0,M11.1.0";
constexpr const char* kChatham = "<+1245>-12:45<+1345>,M9.5.0/2:45,M4.1.0/3:45";
// Standard time in summer, the "daylight" flag on the winter offset.
constexpr const char* kInvertedIrish = "IST-1GMT0,M10.5.0,M3.5.0/1";

DateFields Parse(const std::string& text) {
    DateFields fields;
    bstring s(text.data(), int32_t(text.size()));
    ParseDateFields(s, fields);
    return fields;
}

struct FieldCase {
    const char* text;
    int year, month, day, hour, minute, second, zone;
};

// Every form the reader meets: RFC 822 dates, their sloppy relatives, and
// the forms it reads "wrongly" on purpose.
const FieldCase kFieldCases[] = {
    {"Mon, 5 Jan 2009 07:03:09 +0300", 2009, 1, 5, 7, 3, 9, 180},
    {"Tue, 5 Jan 2009 07:03:09 +0300", 2009, 1, 5, 7, 3, 9, 180},  // wrong day name: unread
    {"5 Jan 2009 07:03:09 +0300", 2009, 1, 5, 7, 3, 9, 180},
    {"Mon,5 Jan 2009 07:03:09 +0300", 2009, 1, 5, 7, 3, 9, 180},
    {"  Mon ,  5\tJan\t2009 \t 07:03:09\t-0800 ", 2009, 1, 5, 7, 3, 9, -480},
    {"5 JAN 2009 07:03:09 gMt", 2009, 1, 5, 7, 3, 9, 0},
    // Two- and three-digit years.
    {"5 Jan 09 07:03:09 GMT", 2009, 1, 5, 7, 3, 9, 0},
    {"5 Jan 99 07:03:09 GMT", 1999, 1, 5, 7, 3, 9, 0},
    {"5 Jan 29 0:0:0", 2029, 1, 5, 0, 0, 0, 0},
    {"5 Jan 30 0:0:0", 1930, 1, 5, 0, 0, 0, 0},
    {"5 Jan 130 07:03:09 GMT", 2030, 1, 5, 7, 3, 9, 0},
    {"5 Jan 199", 2099, 1, 5, 0, 0, 0, 0},
    {"5 Jan 200", 200, 1, 5, 0, 0, 0, 0},
    {"5 Jan 0", 2000, 1, 5, 0, 0, 0, 0},
    // Caps, and values cut to 16 bits.
    {"5 Jan 2009 25:70:99 +0000", 2009, 1, 5, 23, 59, 59, 0},
    {"45 Jan 2009", 2009, 1, 45, 0, 0, 0, 0},
    {"5 Jan 70000", 4464, 1, 5, 0, 0, 0, 0},
    {"99999999999 Jan 99999999999 99999999999:99999999999:99999999999 +99999999999", 65535, 1,
     65535, 23, 59, 59, 1288490207},
    {"5 Jan 2009 07:03:09 -99999999999", 2009, 1, 5, 7, 3, 9, -1288490208},
    // Months by their first three letters; anything else is January.
    {"5 January 2009", 2009, 1, 5, 0, 0, 0, 0},
    {"5 Sept 2009", 2009, 9, 5, 0, 0, 0, 0},
    {"5 dec 2009", 2009, 12, 5, 0, 0, 0, 0},
    {"5 Xyz 2009", 2009, 1, 5, 0, 0, 0, 0},
    {"5 ja 2009", 2009, 1, 5, 0, 0, 0, 0},
    {"5 \xC9t\xE9 2009", 1900, 1, 5, 0, 0, 0, 0},  // no ASCII letter: month and year wait
    // "-" separates only up to the year.
    {"12-Jan-2005 10:30:00 -0500", 2005, 1, 12, 10, 30, 0, -300},
    {"5-Jan-2009-07:03:09 +0100", 2009, 1, 5, 7, 3, 9, 60},
    {"5 Jan 2009 07:03:09-0500", 2009, 1, 5, 7, 3, 9, 0},
    {"5/Jan/2009:07:03:09 +0100", 2009, 1, 5, 7, 3, 9, 60},
    // A time without seconds: the zone is offered to the seconds and lost.
    {"5 Jan 2009 07:03 +0300", 2009, 1, 5, 7, 3, 0, 0},
    {"5 Jan 2009 07:03 0300", 2009, 1, 5, 7, 3, 59, 0},
    {"5 Jan 2009 07:03 GMT", 2009, 1, 5, 7, 3, 0, 0},
    // A non-digit hour still moves on, shifting the rest left.
    {"Mon, 5 Jan 2009 (c) 07:03:09 +0300", 2009, 1, 5, 0, 7, 3, 9},
    {"5 Jan 2009 T07:03:09", 2009, 1, 5, 0, 3, 9, 0},
    // Comments behind the zone are ignored.
    {"5 Jan 2009 07:03:09 EST (Eastern)", 2009, 1, 5, 7, 3, 9, -300},
    {"5 Jan 2009 07:03:09 +0000 (GMT) 12 Feb 2010", 2009, 1, 5, 7, 3, 9, 0},
    // All-numeric dates stop at the month.
    {"01/02/2005", 1900, 1, 1, 0, 0, 0, 0},
    {"2005-01-02 10:00:00", 1900, 1, 2005, 0, 0, 0, 0},
    // Nothing to read.
    {"", 1900, 1, 1, 0, 0, 0, 0},
    {" \t,:/-", 1900, 1, 1, 0, 0, 0, 0},
    {"garbage", 1900, 1, 1, 0, 0, 0, 0},
};

TEST(DatesParse, FieldsFromEveryForm) {
    for (const FieldCase& c : kFieldCases) {
        DateFields f = Parse(c.text);
        SCOPED_TRACE(c.text);
        EXPECT_EQ(f.time.year, c.year);
        EXPECT_EQ(f.time.month, c.month);
        EXPECT_EQ(f.time.day, c.day);
        EXPECT_EQ(f.time.hour, c.hour);
        EXPECT_EQ(f.time.minute, c.minute);
        EXPECT_EQ(f.time.second, c.second);
        EXPECT_EQ(f.time.milliseconds, 0);
        EXPECT_EQ(f.zoneOffset, c.zone);
    }
}

struct ZoneCase {
    const char* zone;
    int offset;
};

const ZoneCase kZoneCases[] = {
    {"UT", 0},      {"gmt", 0},     {"Z", 0},         {"EST", -300},    {"edt", -240},
    {"CST", -360},  {"cdt", -300},  {"MST", -420},    {"mdt", -360},    {"PST", -480},
    {"pdt", -420},  {"A", -60},     {"i", -540},      {"J", 0},         {"K", -600},
    {"m", -720},    {"N", 60},      {"y", 720},       {"CET", 0},       {"gmt+1", 0},
    {"+0000", 0},   {"-0000", 0},   {"+0100", 60},    {"-0500", -300},  {"-0530", -330},
    {"+1345", 825}, {"+0099", 99},  {"-0145", -105},  {"0100", 60},     {"+1", 1},
    {"\"EST\"", -300}, {"'-0500'", -300}, {"\"EST'", 0}, {"\"\"", 0},   {"'+0200'x", 0},
};

TEST(DatesParse, ZonesByNameAndNumber) {
    for (const ZoneCase& c : kZoneCases) {
        std::string text = std::string("5 Jan 2009 07:03:09 ") + c.zone;
        EXPECT_EQ(Parse(text).zoneOffset, c.offset) << text;
    }
}

TEST(DatesParse, NulIsASeparator) {
    std::string text("5\0Jan 2009 07:03:09\0+0100", 26);
    DateFields f = Parse(text);
    EXPECT_EQ(f.time.month, 1);
    EXPECT_EQ(f.time.year, 2009);
    EXPECT_EQ(f.zoneOffset, 60);
}

TEST(DatesParse, ReadsOnlyTheGivenLength) {
    // A view over the first part of a longer buffer must not see the rest.
    const char buffer[] = "5 Jan 2009 07:03:09 +0300";
    bstring view;
    view.borrow(buffer, 10);
    DateFields f;
    ParseDateFields(view, f);
    EXPECT_EQ(f.time.year, 2009);
    EXPECT_EQ(f.time.hour, 0);
    EXPECT_EQ(f.zoneOffset, 0);
}

struct TicksCase {
    const char* text;
    bool ok;
    int64_t ticks;
};

const TicksCase kTicksCases[] = {
    {"Mon, 5 Jan 2009 07:03:09 +0300", true, kJan5_2009_040309},
    {"Mon, 5 Jan 2009 00:33:09 -0330", true, kJan5_2009_040309},
    {"Sun, 4 Jan 2009 23:03:09 EST", true, kJan5_2009_040309},
    {"Mon, 5 Jan 2009 17:48:09 +1345", true, kJan5_2009_040309},
    {"1 Jan 1970 00:00:00 GMT", true, kUnixEpoch},
    {"", true, kJan1_1900},
    {"no date here", true, kJan1_1900},
    {"1 Jan 1601 00:00:00 -0100", true, 36'000'000'000},
    {"1 Jan 1601 00:00:00 +0100", true, -36'000'000'000},
    {"29 Feb 2000", true, 125'962'560'000'000'000},
    // No calendar date: the result is left alone.
    {"45 Jan 2009", false, 0},
    {"0 Jan 2009", false, 0},
    {"29 Feb 2009", false, 0},
    {"29 Feb 1900", false, 0},
    {"31 Apr 2009", false, 0},
    {"5 Jan 500", false, 0},
    {"31 Dec 1600 23:59:59", false, 0},
    {"1 Jan 30828", false, 0},
};

TEST(DatesParse, TicksAndImpossibleDates) {
    for (const TicksCase& c : kTicksCases) {
        int64_t ticks = 42;
        bool ok = ParseDateString(bstring(c.text), ticks);
        EXPECT_EQ(ok, c.ok) << c.text;
        EXPECT_EQ(ticks, c.ok ? c.ticks : 42) << c.text;
    }
}

TEST(DatesParse, ZoneBeyondTheLastTickGivesNoTime) {
    int64_t ticks = 0;
    ASSERT_TRUE(ParseDateString(bstring("31 Dec 30827 23:59:59 +1200"), ticks));
    EXPECT_GT(ticks, 0);
    ASSERT_TRUE(ParseDateString(bstring("31 Dec 30827 23:59:59 -1299999999900"), ticks));
    EXPECT_LT(ticks, 0);
    EXPECT_EQ(GetDateFromString(bstring("31 Dec 30827 23:59:59 -1299999999900"), false), 0.0);
}

struct DateCase {
    const char* text;
    double utc;
};

const DateCase kDateCases[] = {
    {"Mon, 5 Jan 2009 07:03:09 +0300", 39818.168854166666},
    {"5 Jan 2009 07:03:09 -0500", 39818.5021875},
    {"", 2.0},
    {"31 Dec 9999 23:59:59 GMT", 2958465.999988426},
    {"1 Jan 1601 00:00:00 -0100", -109205.04166666667},
    {"29 Feb 2008", 39507.0},
    {"45 Jan 2009", 0.0},                 // no calendar date
    {"1 Jan 1601 00:00:00 +0100", 0.0},   // before the first tick
    {"1 Jan 10000", 0.0},                 // beyond the last DATE
};

TEST(DatesFromString, UtcDates) {
    ZoneScope zone(kCentralEurope);  // must not matter
    for (const DateCase& c : kDateCases)
        EXPECT_NEAR(GetDateFromString(bstring(c.text), false), c.utc, kDateTolerance) << c.text;
}

TEST(DatesFromString, LocalDatesFollowTheRulesOfTheirDay) {
    ZoneScope zone(kCentralEurope);
    EXPECT_NEAR(GetDateFromString(bstring("5 Jan 2009 07:03:09 -0500")), 39818.543854166666,
                kDateTolerance);
    EXPECT_NEAR(GetDateFromString(bstring("1 Jan 2009 12:00:00 GMT"), true), 39814.541666666664,
                kDateTolerance);
    EXPECT_NEAR(GetDateFromString(bstring("1 Jul 2009 12:00:00 GMT"), true), 39995.583333333336,
                kDateTolerance);
}

TEST(DatesFromString, EmptyTextIsTheFirstOf1900ShiftedToLocal) {
    ZoneScope zone("<+03>-3");
    EXPECT_NEAR(GetDateFromString(bstring("")), 2.125, kDateTolerance);
    EXPECT_NEAR(GetDateFromString(bstring(""), false), 2.0, kDateTolerance);
}

struct FormatCase {
    const char* tz;
    int64_t now;
    const char* expected;
};

const FormatCase kFormatCases[] = {
    {"<+03>-3", kJan5_2009_040309, "Mon, 5 Jan 2009 07:03:09 +0300"},
    {"UTC0", kJan5_2009_040309, "Mon, 5 Jan 2009 04:03:09 +0000"},
    {kUsEastern, kJan5_2009_040309, "Sun, 4 Jan 2009 23:03:09 -0500"},
    {kUsEastern, kJul1_2009_1000, "Wed, 1 Jul 2009 06:00:00 -0400"},
    {kCentralEurope, kJan5_2009_040309, "Mon, 5 Jan 2009 05:03:09 +0100"},
    {kCentralEurope, kJul1_2009_1000, "Wed, 1 Jul 2009 12:00:00 +0200"},
    {kNewfoundland, kJan5_2009_040309, "Mon, 5 Jan 2009 00:33:09 -0330"},
    {kChatham, kJan5_2009_040309, "Mon, 5 Jan 2009 17:48:09 +1345"},
    {kChatham, kJul1_2009_1000, "Wed, 1 Jul 2009 22:45:00 +1245"},
    {kInvertedIrish, kJan5_2009_040309, "Mon, 5 Jan 2009 04:03:09 +0000"},
    {kInvertedIrish, kJul1_2009_1000, "Wed, 1 Jul 2009 11:00:00 +0100"},
    {"UTC0", 0, "Mon, 1 Jan 1601 00:00:00 +0000"},
};

TEST(DatesFormat, CurrentDateInTheLocalZone) {
    for (const FormatCase& c : kFormatCases) {
        ZoneScope zone(c.tz);
        NowScope now(c.now);
        bstring out("previous text");
        FormatCurrentDate(out);
        EXPECT_EQ(std::string(out.pData, out.nSize), c.expected) << c.tz;
    }
}

TEST(DatesFormat, WrittenDateReadsBackAsTheSameInstant) {
    std::mt19937_64 random(7);
    for (const char* tz : {kCentralEurope, kUsEastern, kNewfoundland, kChatham, kInvertedIrish}) {
        ZoneScope zone(tz);
        for (int i = 0; i < 200; ++i) {
            // Whole seconds between 1970 and 2100.
            int64_t ticks = kUnixEpoch + int64_t(random() % 4'102'444'800ull) * 10'000'000;
            bstring text;
            FormatDate(text, ticks);
            int64_t back = 0;
            ASSERT_TRUE(ParseDateString(text, back));
            EXPECT_EQ(back, ticks) << tz << ": " << std::string(text.pData, text.nSize);
        }
    }
}

TEST(DatesFormat, UnpinnedClockIsNearTheSystemClock) {
    int64_t system = kUnixEpoch + int64_t(std::time(nullptr)) * 10'000'000;
    int64_t ticks = platform::GetSystemTimeAsFileTime();
    EXPECT_LT(std::llabs(ticks - system), 5 * 10'000'000LL);
}

struct OffsetCase {
    const char* tz;
    int64_t now;
    int32_t withDaylight, withoutDaylight;
};

const OffsetCase kOffsetCases[] = {
    {kCentralEurope, kJul1_2009_1000, -120, -60},
    {kCentralEurope, kJan5_2009_040309, -60, -60},
    {kUsEastern, kJul1_2009_1000, 240, 300},
    {kUsEastern, kJan5_2009_040309, 300, 300},
    {kChatham, kJan5_2009_040309, -825, -765},
    {kInvertedIrish, kJul1_2009_1000, -60, 0},
    {kInvertedIrish, kJan5_2009_040309, 0, 0},
    {"UTC0", kJul1_2009_1000, 0, 0},
    {"<+03>-3", kJul1_2009_1000, -180, -180},
};

TEST(DatesZone, LocalTimeZoneOffset) {
    for (const OffsetCase& c : kOffsetCases) {
        ZoneScope zone(c.tz);
        NowScope now(c.now);
        EXPECT_EQ(GetLocalTimeZoneOffset(), c.withDaylight) << c.tz;
        EXPECT_EQ(GetLocalTimeZoneOffset(true), c.withoutDaylight) << c.tz;
        // The writer's single reading of the zone agrees with the split one.
        SystemTime local;
        int32_t bias = 1;
        ASSERT_TRUE(platform::FileTimeToLocalTime(c.now, local, bias));
        EXPECT_EQ(bias, c.withDaylight) << c.tz;
    }
}

// The same through the system's zone files, where Dublin flags its winter
// offset as the daylight one; skipped on a machine without them.
TEST(DatesZone, SystemZoneFiles) {
    const OffsetCase cases[] = {
        {"Europe/Berlin", kJul1_2009_1000, -120, -60},
        {"Europe/Dublin", kJul1_2009_1000, -60, 0},
        {"Europe/Dublin", kJan5_2009_040309, 0, 0},
        {"Asia/Kolkata", kJul1_2009_1000, -330, -330},
    };
    for (const OffsetCase& c : cases) {
        if (std::string path = std::string("/usr/share/zoneinfo/") + c.tz; access(path.c_str(), R_OK) != 0)
            GTEST_SKIP() << "no " << path;
        ZoneScope zone(c.tz);
        NowScope now(c.now);
        EXPECT_EQ(GetLocalTimeZoneOffset(), c.withDaylight) << c.tz;
        EXPECT_EQ(GetLocalTimeZoneOffset(true), c.withoutDaylight) << c.tz;
    }
    ZoneScope zone("Asia/Kolkata");
    bstring text;
    FormatDate(text, kJan5_2009_040309);
    EXPECT_EQ(std::string(text.pData, text.nSize), "Mon, 5 Jan 2009 09:33:09 +0530");
}

// ---- ticks and DATE values ----

SystemTime Fields(int y, int mo, int d, int h = 0, int mi = 0, int s = 0, int ms = 0) {
    SystemTime t;
    t.year = uint16_t(y), t.month = uint16_t(mo), t.day = uint16_t(d);
    t.hour = uint16_t(h), t.minute = uint16_t(mi), t.second = uint16_t(s);
    t.milliseconds = uint16_t(ms);
    return t;
}

void ExpectFields(const SystemTime& t, int y, int mo, int d, int h, int mi, int s, int ms) {
    EXPECT_EQ(t.year, y);
    EXPECT_EQ(t.month, mo);
    EXPECT_EQ(t.day, d);
    EXPECT_EQ(t.hour, h);
    EXPECT_EQ(t.minute, mi);
    EXPECT_EQ(t.second, s);
    EXPECT_EQ(t.milliseconds, ms);
}

TEST(DatesTicks, KnownInstants) {
    SystemTime t;
    ASSERT_TRUE(platform::FileTimeToSystemTime(0, t));
    ExpectFields(t, 1601, 1, 1, 0, 0, 0, 0);
    EXPECT_EQ(t.dayOfWeek, 1);  // Monday
    ASSERT_TRUE(platform::FileTimeToSystemTime(kUnixEpoch, t));
    ExpectFields(t, 1970, 1, 1, 0, 0, 0, 0);
    EXPECT_EQ(t.dayOfWeek, 4);  // Thursday
    ASSERT_TRUE(platform::FileTimeToSystemTime(kJan5_2009_040309 + 12'349'999, t));
    ExpectFields(t, 2009, 1, 5, 4, 3, 10, 234);
    ASSERT_TRUE(platform::FileTimeToSystemTime(std::numeric_limits<int64_t>::max(), t));
    ExpectFields(t, 30828, 9, 14, 2, 48, 5, 477);
    EXPECT_FALSE(platform::FileTimeToSystemTime(-1, t));

    int64_t ticks = 0;
    ASSERT_TRUE(platform::SystemTimeToFileTime(Fields(2009, 1, 5, 4, 3, 10, 234), ticks));
    EXPECT_EQ(ticks, kJan5_2009_040309 + 12'340'000);
}

TEST(DatesTicks, InvalidFieldsAreRefused) {
    const SystemTime bad[] = {
        Fields(1600, 12, 31), Fields(30828, 1, 1),         Fields(2009, 0, 1),
        Fields(2009, 13, 1),  Fields(2009, 1, 0),          Fields(2009, 4, 31),
        Fields(2100, 2, 29),  Fields(2009, 1, 1, 24),      Fields(2009, 1, 1, 0, 60),
        Fields(2009, 1, 1, 0, 0, 60), Fields(2009, 1, 1, 0, 0, 0, 1000),
    };
    for (const SystemTime& t : bad) {
        int64_t ticks = 42;
        EXPECT_FALSE(platform::SystemTimeToFileTime(t, ticks)) << t.year << "-" << t.month << "-" << t.day;
        EXPECT_EQ(ticks, 42);
    }
}

struct VariantCase {
    int y, mo, d, h, mi, s;
    double date;
};

const VariantCase kVariantCases[] = {
    {1899, 12, 30, 0, 0, 0, 0.0},
    {1899, 12, 30, 12, 0, 0, 0.5},
    {1899, 12, 31, 0, 0, 0, 1.0},
    {1900, 1, 1, 0, 0, 0, 2.0},
    {1900, 1, 1, 1, 0, 0, 2.0416666666666665},
    {1899, 12, 29, 6, 0, 0, -1.25},
    {1899, 12, 29, 18, 0, 0, -1.75},
    {1800, 1, 1, 12, 0, 0, -36522.5},
    {100, 1, 1, 0, 0, 0, -657434.0},
    {2008, 2, 29, 0, 0, 0, 39507.0},
    {2009, 1, 5, 7, 3, 9, 39818.293854166666},
    {9999, 12, 31, 23, 59, 59, 2958465.999988426},
};

TEST(DatesVariant, KnownValuesBothWays) {
    for (const VariantCase& c : kVariantCases) {
        double date = 1e9;
        ASSERT_TRUE(platform::SystemTimeToVariantTime(Fields(c.y, c.mo, c.d, c.h, c.mi, c.s, 999), date));
        EXPECT_NEAR(date, c.date, kDateTolerance) << c.y << "-" << c.mo << "-" << c.d;
        SystemTime t;
        ASSERT_TRUE(platform::VariantTimeToSystemTime(c.date, t)) << c.date;
        ExpectFields(t, c.y, c.mo, c.d, c.h, c.mi, c.s, 0);
    }
}

TEST(DatesVariant, FractionOfANegativeDateCountsFromMidnight) {
    SystemTime t;
    ASSERT_TRUE(platform::VariantTimeToSystemTime(-0.25, t));  // day 0, 06:00
    ExpectFields(t, 1899, 12, 30, 6, 0, 0, 0);
    ASSERT_TRUE(platform::VariantTimeToSystemTime(-657434.5, t));
    ExpectFields(t, 100, 1, 1, 12, 0, 0, 0);
}

TEST(DatesVariant, RoundsToTheNearestSecond) {
    SystemTime t;
    ASSERT_TRUE(platform::VariantTimeToSystemTime(2.0 + 0.4 / 86400, t));
    ExpectFields(t, 1900, 1, 1, 0, 0, 0, 0);
    ASSERT_TRUE(platform::VariantTimeToSystemTime(2.0 + 0.6 / 86400, t));
    ExpectFields(t, 1900, 1, 1, 0, 0, 1, 0);
    ASSERT_TRUE(platform::VariantTimeToSystemTime(1.9999999, t));  // carries into the next day
    ExpectFields(t, 1900, 1, 1, 0, 0, 0, 0);
    ASSERT_TRUE(platform::VariantTimeToSystemTime(-1.9999999, t));  // 1899-12-29 24:00
    ExpectFields(t, 1899, 12, 30, 0, 0, 0, 0);
}

TEST(DatesVariant, OutOfRangeIsRefused) {
    const double bad[] = {-657435.0, 2958466.0, std::nan(""), std::numeric_limits<double>::infinity(),
                          -std::numeric_limits<double>::infinity(), 2958465.99999999};
    for (double date : bad) {
        SystemTime t = Fields(2001, 2, 3);
        EXPECT_FALSE(platform::VariantTimeToSystemTime(date, t)) << date;
        EXPECT_EQ(t.year, 2001);
    }
    for (const SystemTime& t : {Fields(99, 12, 31), Fields(10000, 1, 1), Fields(2009, 2, 30)}) {
        double date = 42.0;
        EXPECT_FALSE(platform::SystemTimeToVariantTime(t, date)) << t.year;
        EXPECT_EQ(date, 42.0);
    }
}

TEST(DatesVariant, RoundTripOverTheWholeRange) {
    std::mt19937_64 random(11);
    for (int i = 0; i < 20000; ++i) {
        int64_t day = int64_t(random() % (2958465 + 657434 + 1)) - 657434;
        int64_t second = int64_t(random() % 86400);
        double date = day >= 0 ? double(day) + double(second) / 86400 : double(day) - double(second) / 86400;
        SystemTime t;
        ASSERT_TRUE(platform::VariantTimeToSystemTime(date, t)) << date;
        EXPECT_EQ(t.hour * 3600 + t.minute * 60 + t.second, second) << date;
        double back = 0;
        ASSERT_TRUE(platform::SystemTimeToVariantTime(t, back));
        EXPECT_NEAR(back, date, kDateTolerance);
    }
}

}  // namespace
}  // namespace kv
