// Dates of mail: reading the text of a Date header into a point in time, and
// writing the Date header of a new message.
//
// The reader is lenient and never fails. It walks the text once, token by
// token, filling day, month, year, hour, minute, second and zone in that
// order; a token that cannot fill the field it is offered is mostly skipped,
// and whatever is never filled keeps its start value (1 January 1900,
// 00:00:00, zone +0000). It takes RFC 822 dates and what can be read as one:
//
//   date-time = [ day-name "," ] day month year hour ":" minute [ ":" second ] zone
//
// and no more: all-numeric dates, a time without seconds followed by a zone,
// or a comment before the zone are read "wrongly" in a fixed, documented way
// (see dates_test.cpp), which callers rely on.
#pragma once

#include <cstdint>

#include "foundation/bstring.h"
#include "platform/timezone.h"

namespace kv {

// What the walk over a Date header's text leaves behind.
struct DateFields {
    // 1900-01-01 00:00:00.000 until tokens say otherwise. Fields hold what the
    // tokens said, cut to 16 bits, with hour capped at 23 and minute and
    // second at 59; day and month are not checked, so day 45 can stand here.
    platform::SystemTime time{1900, 1, 0, 1, 0, 0, 0, 0};
    int32_t zoneOffset = 0;  // minutes east of UTC
};

// Fills fields from text (any bytes). Never fails.
void ParseDateFields(const bstring& text, DateFields& fields);

// text as an instant in UTC ticks: the fields of ParseDateFields, less the
// zone offset. Returns false, leaving ticks untouched, when the fields are no
// calendar date (day 45, 29 February 1900, year 500); the walk itself always
// completes. The result is negative, which no time is, when the zone moves
// the instant before 1601 or beyond the last tick.
bool ParseDateString(const bstring& text, int64_t& ticks);

// The Date header text as an automation DATE: UTC, or with toLocalTime the
// local time of that instant. 0.0 (1899-12-30 00:00) when there is no such
// DATE: the fields are no calendar date, the instant lies before 1601, or the
// year lies outside 100..9999.
double GetDateFromString(const bstring& text, bool toLocalTime = true);

// The local zone's present bias in minutes west of UTC (UTC+1 gives -60),
// with the daylight bias added while daylight time is in force unless
// ignoreDaylightBias. Note the sign: the opposite of a Date header's zone.
int32_t GetLocalTimeZoneOffset(bool ignoreDaylightBias = false);

// Replaces dest with the local time of the instant ticks (>= 0; a negative
// value counts as 0) in Date header form: "Mon, 5 Jan 2009 07:03:09 +0300".
// The day is not padded; the zone is the local offset then, "+0000" for UTC.
void FormatDate(bstring& dest, int64_t ticks);

// FormatDate of the present time (platform::GetSystemTimeAsFileTime).
void FormatCurrentDate(bstring& dest);

}  // namespace kv
