// ESI time to a broken-down calendar time.
#include <climits>
#include <cstdint>
#include <cstring>
#include <ctime>

#include "impl/clapi_trace.h"
#include "kvl_esi.h"

namespace {
constexpr int kMonthLength[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
constexpr int kMonthKeyCommon[12] = {0, 3, 3, 6, 1, 4, 6, 2, 5, 0, 3, 5};
constexpr int kMonthKeyLeap[12] = {6, 2, 3, 6, 1, 4, 6, 2, 5, 0, 3, 5};

bool isLeap(int64_t y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

// The month is used as an index: out-of-range months from the wire are clamped
// into the table rather than read past it.
int clampToInt(int64_t value) {
    if (value > INT_MAX) return INT_MAX;
    if (value < INT_MIN) return INT_MIN;
    return static_cast<int>(value);
}

int clampMonth(int month) { return month < 0 ? 0 : (month > 11 ? 11 : month); }
}  // namespace

extern "C" KVL_API struct tm* KVL_ESI_convertTime(const EsiTime* esiTime, struct tm* result) {
    CLAPI_TRACE(ENTRY, 1813, "API.KVL_ESI_convertTime(esiTime=%p, result=%p)\n", (const void*)esiTime, (void*)result);
    if (esiTime && result) {
        if (esiTime->year == 0) {
            memset(result, 0, sizeof *result);
        } else {
            // Year and day come straight from the Gateway: the arithmetic is done
            // in 64 bits, so that no value can overflow, and the results that go
            // into int fields are clamped to int's range.
            const int64_t y = esiTime->year;
            const bool leap = isLeap(y);
            int64_t century;
            int64_t yy;
            if (y > 2100) {
                century = 4;
                yy = y - 2100;
            } else if (y >= 2001) {
                century = 6;
                yy = y - 2000;
            } else {
                century = 0;
                yy = y - 1900;
            }
            const int month = clampMonth(esiTime->month);
            const int key = leap ? kMonthKeyLeap[month] : kMonthKeyCommon[month];
            int64_t weekday = (yy / 4 + esiTime->day + key + yy + century) % 7;
            if (weekday < 0) weekday += 7;
            // Counted from 1 (1 January gives 1), one more than the C library's tm_yday.
            int64_t yearday = esiTime->day;
            for (int m = 0; m < month; ++m) yearday += kMonthLength[m];
            if (leap && month > 1) yearday += 1;

            memset(result, 0, sizeof *result);
            result->tm_year = clampToInt(y - 1900);
            result->tm_mon = esiTime->month;
            result->tm_mday = esiTime->day;
            result->tm_hour = esiTime->hour;
            result->tm_min = esiTime->minute;
            result->tm_sec = esiTime->second;
            result->tm_wday = static_cast<int>(weekday);
            result->tm_yday = clampToInt(yearday);
            result->tm_isdst = -1;
            CLAPI_TRACE(DEBUG, 1814,
                        "API.KVL_ESI_convertTime() tm members year=%d, month=%d, day=%d, hour=%d, min=%d, sec=%d, "
                        "wday=%d, yday=%d\n",
                        result->tm_year, result->tm_mon, result->tm_mday, result->tm_hour, result->tm_min,
                        result->tm_sec, result->tm_wday, result->tm_yday);
        }
    }
    CLAPI_TRACE(EXIT, 1815, "API.KVL_ESI_convertTime()\n");
    return result;
}
