#include "codecs/dates.h"

#include <cstdio>

namespace kv {
namespace {

using platform::SystemTime;

const char* const kDayNames[7] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
const char* const kMonthNames[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// The walk's states: which field the next token fills. Beyond kZone every
// token is ignored, which is how a trailing "(EST)" comment does no harm.
enum State { kDay = 1, kMonth, kYear, kHour, kMinute, kSecond, kZone, kDone };

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
// ASCII only: bytes above 0x7F are no letters, whatever the code page.
bool IsLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
char Lower(char c) { return c >= 'A' && c <= 'Z' ? char(c + ('a' - 'A')) : c; }

bool IsSeparator(char c, bool time_reached) {
    // Once the year or hour is read, "-" belongs to tokens, so that a zone
    // "-0500" stays whole while "12-Jan-2005" still splits.
    return c == '\0' || c == ' ' || c == '\t' || c == ',' || c == ':' || c == '/' ||
           (c == '-' && !time_reached);
}

// Any token gives a month: one whose first three letters name none gives 1.
uint16_t MonthFromName(const bstring& token) {
    if (token.nSize < 3) return 1;
    for (int m = 0; m < 12; ++m) {
        const char* name = kMonthNames[m];
        if (Lower(token.pData[0]) == Lower(name[0]) && Lower(token.pData[1]) == name[1] &&
            Lower(token.pData[2]) == name[2])
            return uint16_t(m + 1);
    }
    return 1;
}

// RFC 822 zone names with the one-letter military zones, the latter with the
// signs RFC 822 printed (a = -1 hour, the reverse of common use). Other words
// give 0.
int32_t ZoneFromName(const bstring& word) {
    struct Named {
        const char* name;
        int32_t offset;
    };
    static const Named kNamed[] = {{"ut", 0},      {"gmt", 0},    {"z", 0},      {"est", -300},
                                   {"edt", -240},  {"cst", -360}, {"cdt", -300}, {"mst", -420},
                                   {"mdt", -360},  {"pst", -480}, {"pdt", -420}};
    for (const Named& zone : kNamed)
        if (word.equals(zone.name)) return zone.offset;
    if (word.nSize == 1) {
        int place = Lower(word.pData[0]) - 'a' + 1;  // a = 1
        if (place >= 1 && place <= 9) return -60 * place;
        if (place >= 11 && place <= 13) return -60 * (place - 1);
        if (place >= 14 && place <= 25) return 60 * (place - 13);
    }
    return 0;
}

// "+hhmm" or "-hhmm" read as one signed number v: hours v / 100 and minutes
// v % 100, both with v's sign, so "-0530" is -330 and "+1345" is 825.
int32_t ZoneFromNumber(const bstring& token) {
    int32_t v = token.to_int();
    return v / 100 * 60 + v % 100;
}

void TakeToken(bstring& token, int& state, bool& time_reached, DateFields& f) {
    bool digit = IsDigit(token.pData[0]);
    switch (state) {
    case kDay:  // a day name before the day is skipped here
        if (digit) {
            f.time.day = uint16_t(token.to_int());
            state = kMonth;
        }
        break;
    case kMonth:
        if (IsLetter(token.pData[0])) {
            f.time.month = MonthFromName(token);
            state = kYear;
        }
        break;
    case kYear:
        if (digit) {
            int32_t year = token.to_int();
            if (year < 30)
                year += 2000;
            else if (year < 200)
                year += 1900;
            f.time.year = uint16_t(year);
            time_reached = true;
            state = kHour;
        }
        break;
    case kHour:
        if (digit) {
            int32_t hour = token.to_int();
            f.time.hour = uint16_t(hour > 23 ? 23 : hour);
            time_reached = true;
        }
        state = kMinute;  // even without an hour
        break;
    case kMinute:
        if (digit) {
            int32_t minute = token.to_int();
            f.time.minute = uint16_t(minute > 59 ? 59 : minute);
            state = kSecond;
        }
        break;
    case kSecond:
        if (digit) {
            int32_t second = token.to_int();
            f.time.second = uint16_t(second > 59 ? 59 : second);
            state = kZone;
        }
        break;
    case kZone:
        token.unquote();
        if (token.nSize > 0 && IsLetter(token.pData[0]))
            f.zoneOffset = ZoneFromName(token);
        else
            f.zoneOffset = ZoneFromNumber(token);
        state = kDone;
        break;
    default:
        break;
    }
}

}  // namespace

void ParseDateFields(const bstring& text, DateFields& fields) {
    fields = DateFields{};
    const char* p = text.pData;
    int32_t n = p && text.nSize > 0 ? text.nSize : 0;
    int state = kDay;
    bool time_reached = false;
    int32_t start = -1;  // of the token being read
    bstring token;
    // One step past the end: the terminating NUL ends the last token.
    for (int32_t i = 0; i <= n && state != kDone; ++i) {
        char c = i < n ? p[i] : '\0';
        if (!IsSeparator(c, time_reached)) {
            if (start < 0) start = i;
            continue;
        }
        if (start < 0) continue;
        token.borrow(p + start, i - start);
        start = -1;
        TakeToken(token, state, time_reached, fields);
    }
}

bool ParseDateString(const bstring& text, int64_t& ticks) {
    DateFields fields;
    ParseDateFields(text, fields);
    int64_t local;
    if (!platform::SystemTimeToFileTime(fields.time, local)) return false;
    // Unsigned, as tick counts are: a zone far enough west of a date near the
    // end of time wraps past the top bit, which reads as a negative, invalid
    // count rather than overflowing.
    uint64_t shift = uint64_t(int64_t(fields.zoneOffset)) * uint64_t(platform::kTicksPerMinute);
    ticks = int64_t(uint64_t(local) - shift);
    return true;
}

double GetDateFromString(const bstring& text, bool toLocalTime) {
    int64_t ticks;
    SystemTime utc, time;
    if (!ParseDateString(text, ticks) || !platform::FileTimeToSystemTime(ticks, utc)) return 0.0;
    time = utc;
    if (toLocalTime && !platform::SystemTimeToTzSpecificLocalTime(utc, time)) return 0.0;
    double date = 0.0;
    platform::SystemTimeToVariantTime(time, date);
    return date;
}

int32_t GetLocalTimeZoneOffset(bool ignoreDaylightBias) {
    platform::TimeZoneInformation zone =
        platform::GetTimeZoneInformation(platform::GetSystemTimeAsFileTime());
    return ignoreDaylightBias ? zone.bias : zone.CurrentBias();
}

void FormatDate(bstring& dest, int64_t ticks) {
    if (ticks < 0) ticks = 0;
    SystemTime local;
    int32_t bias = 0;
    // The bias in force then: the standard bias plus any daylight bias.
    if (!platform::FileTimeToLocalTime(ticks, local, bias))
        platform::FileTimeToSystemTime(ticks, local);
    // Bias counts west, the header's zone east: a bias of 0 writes "+0000".
    char sign = bias < 1 ? '+' : '-';
    int32_t magnitude = bias < 0 ? -bias : bias;
    char text[64];
    int n = std::snprintf(text, sizeof text, "%s, %u %s %u %02u:%02u:%02u %c%02d%02d",
                          kDayNames[local.dayOfWeek % 7], unsigned(local.day),
                          kMonthNames[(local.month + 11) % 12], unsigned(local.year),
                          unsigned(local.hour), unsigned(local.minute), unsigned(local.second),
                          sign, int(magnitude / 60), int(magnitude % 60));
    dest.assign(text, n);
}

void FormatCurrentDate(bstring& dest) { FormatDate(dest, platform::GetSystemTimeAsFileTime()); }

}  // namespace kv
