// ESI times to calendar records, checked against the standard library's calendar.
#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <cstring>
#include <ctime>

#include "kvl_esi.h"

namespace {
EsiTime esiTime(int year, int month0, int day, int hour = 0, int minute = 0, int second = 0) {
    EsiTime t{};
    t.year = year;
    t.month = month0;
    t.day = day;
    t.hour = hour;
    t.minute = minute;
    t.second = second;
    t.reserved = 12345;  // never interpreted
    return t;
}
}  // namespace

// The weekday rule counts 2100 as year 100 of the 2000s, so that one year runs a
// day ahead of the calendar; every other year from 1900 to 2199 agrees with it.
TEST(EsiConvertTime, WeekdayAndDayOfYearForEveryDayOf1900To2199) {
    using namespace std::chrono;
    int checked = 0;
    for (sys_days d = sys_days{year{1900} / January / 1}; d <= sys_days{year{2199} / December / 31}; d += days{1}) {
        year_month_day ymd{d};
        int y = static_cast<int>(ymd.year());
        if (y == 2100) continue;
        int m = static_cast<int>(static_cast<unsigned>(ymd.month())) - 1;
        int dd = static_cast<int>(static_cast<unsigned>(ymd.day()));
        EsiTime t = esiTime(y, m, dd, 13, 14, 15);
        struct tm out;
        memset(&out, 0x55, sizeof out);
        ASSERT_EQ(KVL_ESI_convertTime(&t, &out), &out);
        int expectedWday = static_cast<int>(weekday{d}.c_encoding());
        int expectedYday = static_cast<int>((d - sys_days{ymd.year() / January / 1}).count()) + 1;
        ASSERT_EQ(out.tm_wday, expectedWday) << y << "-" << m + 1 << "-" << dd;
        ASSERT_EQ(out.tm_yday, expectedYday) << y << "-" << m + 1 << "-" << dd;
        ASSERT_EQ(out.tm_year, y - 1900);
        ASSERT_EQ(out.tm_mon, m);
        ASSERT_EQ(out.tm_mday, dd);
        ++checked;
    }
    EXPECT_EQ(checked, 300 * 365 + 73 - 365) << "300 years with 73 leap days, less 2100";
}

TEST(EsiConvertTime, Year2100FollowsTheCenturyTable) {
    EsiTime t = esiTime(2100, 0, 1);
    struct tm out;
    ASSERT_EQ(KVL_ESI_convertTime(&t, &out), &out);
    EXPECT_EQ(out.tm_wday, 6) << "(100 / 4 + 1 + 0 + 100 + 6) mod 7; the calendar says Friday";
    EXPECT_EQ(out.tm_yday, 1);
    t = esiTime(2100, 2, 1);
    KVL_ESI_convertTime(&t, &out);
    EXPECT_EQ(out.tm_yday, 60) << "2100 is not a leap year";
}

TEST(EsiConvertTime, FieldsLeapDayAndYearZero) {
    EsiTime t = esiTime(2001, 0, 1, 8, 30, 59);
    struct tm out;
    ASSERT_EQ(KVL_ESI_convertTime(&t, &out), &out);
    EXPECT_EQ(out.tm_wday, 1);  // Monday
    EXPECT_EQ(out.tm_yday, 1);  // counted from 1
    EXPECT_EQ(out.tm_hour, 8);
    EXPECT_EQ(out.tm_min, 30);
    EXPECT_EQ(out.tm_sec, 59);
    EXPECT_EQ(out.tm_isdst, -1);

    t = esiTime(2000, 1, 29);  // divisible by 400: a leap day
    ASSERT_EQ(KVL_ESI_convertTime(&t, &out), &out);
    EXPECT_EQ(out.tm_yday, 60);
    EXPECT_EQ(out.tm_wday, 2);  // Tuesday
    t = esiTime(2000, 2, 1);
    KVL_ESI_convertTime(&t, &out);
    EXPECT_EQ(out.tm_yday, 61);

    t = esiTime(0, 5, 6, 7, 8, 9);
    memset(&out, 0x7F, sizeof out);
    ASSERT_EQ(KVL_ESI_convertTime(&t, &out), &out);
    struct tm zero;
    memset(&zero, 0, sizeof zero);
    EXPECT_EQ(memcmp(&out, &zero, sizeof out), 0) << "year 0 zeroes the whole record, daylight flag included";
}

TEST(EsiConvertTime, NullPointersChangeNothingAndBadMonthsStayInBounds) {
    struct tm out;
    memset(&out, 0x11, sizeof out);
    struct tm before = out;
    EXPECT_EQ(KVL_ESI_convertTime(nullptr, &out), &out);
    EXPECT_EQ(memcmp(&out, &before, sizeof out), 0);
    EsiTime t = esiTime(2020, 3, 4);
    EXPECT_EQ(KVL_ESI_convertTime(&t, nullptr), nullptr);
    // A month from the wire outside 0..11 must not index past the tables.
    t = esiTime(2020, 99, 1);
    EXPECT_EQ(KVL_ESI_convertTime(&t, &out), &out);
    EXPECT_EQ(out.tm_mon, 99);
    t = esiTime(2020, -5, 1);
    EXPECT_EQ(KVL_ESI_convertTime(&t, &out), &out);
}

// Years and days come straight from the Gateway: the extremes of int must give
// defined results (no overflow, which UndefinedBehaviorSanitizer stops on).
TEST(EsiConvertTime, ExtremeYearsAndDaysDoNotOverflow) {
    const struct {
        int year;
        int day;
        int expectYear;  // tm_year, clamped to int
        int expectYday;  // tm_yday, clamped to int
    } cases[] = {
        {INT_MAX, 1, INT_MAX - 1900, 1},
        {INT_MIN, 1, INT_MIN, 1},
        {INT_MIN + 1899, 1, INT_MIN, 1},
        {2020, INT_MAX, 120, INT_MAX},
        {2020, INT_MIN, 120, INT_MIN + 0},
        {INT_MAX, INT_MAX, INT_MAX - 1900, INT_MAX},
        {INT_MIN, INT_MIN, INT_MIN, INT_MIN},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.year << "/" << c.day);
        EsiTime t = esiTime(c.year, 0, c.day);
        struct tm out {};
        ASSERT_EQ(KVL_ESI_convertTime(&t, &out), &out);
        EXPECT_EQ(out.tm_year, c.expectYear);
        EXPECT_EQ(out.tm_yday, c.expectYday);
        EXPECT_GE(out.tm_wday, 0);
        EXPECT_LE(out.tm_wday, 6);
    }
}
