// See win_time.h. The system library's timezone (seconds west of UTC, standard time) stands for the local
// offset in both directions, so that a date and its text agree.
#include "win_time.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <utility>

namespace {

constexpr double MAX_SECONDS = 1e17; // beyond any year that a broken-down time can hold

/// The fields of a date in the order of its text, each but the first with what stands before it.
constexpr const char* SEPARATORS = "-- ::";
using DateFields = std::array<int, 6>;

/// Reads fields as scanf's "%d-%d-%d %d:%d:%d" does, whose result for a number beyond int is undefined. The
/// count of fields read; none when there is such a number, as the text is no date.
size_t ReadFields(const char* szText, DateFields& fields)
{
    for (size_t nRead = 0; nRead < fields.size(); ++nRead) {
        const char chBefore = nRead > 0 ? SEPARATORS[nRead - 1] : ' ';
        if (chBefore != ' ' && *szText++ != chBefore)
            return nRead;
        char* szEnd = nullptr;
        errno = 0;
        const long n = std::strtol(szText, &szEnd, 10); // passes over blanks
        if (szEnd == szText)
            return nRead;
        if (errno == ERANGE || !std::in_range<int>(n))
            return 0;
        fields[nRead] = static_cast<int>(n);
        szText = szEnd;
    }
    return fields.size();
}

} // namespace

DATE StrToDate(const char* szText)
{
    DateFields fields{2000, 1, 1, 0, 0, 0};
    if (ReadFields(szText, fields) < 1)
        return 0.0;
    const auto [nYear, nMonth, nDay, nHour, nMinute, nSecond] = fields;
    tm local{};
    local.tm_year = static_cast<int>(static_cast<unsigned>(nYear) - 1900U);
    local.tm_mon = static_cast<int>(static_cast<unsigned>(nMonth) - 1U);
    local.tm_mday = nDay;
    local.tm_hour = nHour;
    local.tm_min = nMinute;
    local.tm_sec = nSecond;
    local.tm_isdst = -1;
    const time_t t = std::mktime(&local);
    return (static_cast<double>(t) - static_cast<double>(::timezone)) / SECONDS_PER_DAY + DATE_1970;
}

void DateToText(DATE date, CString& strText)
{
    strText.clear();
    ::tzset();
    const double seconds = (date - DATE_1970) * SECONDS_PER_DAY + static_cast<double>(::timezone) + 0.5;
    if (!(seconds > -MAX_SECONDS && seconds < MAX_SECONDS))
        return;
    const auto t = static_cast<time_t>(seconds);
    tm local{};
    if (!::localtime_r(&t, &local))
        return;
    std::array<char, 96> text;
    std::snprintf(text.data(), text.size(), "%lld-%02d-%02d %02d:%02d:%02d", local.tm_year + 1900LL,
                  local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    strText = text.data();
}

void DateToStr(int nYear, int nMonth, int nDay, int nHour, int nMinute, int nSecond, const CString& strFormat,
               CString& strTime)
{
    struct SField
    {
        char chMarker;
        int nValue;
        const char* szTwoPlaces; // the year's pads but does not cut
    };
    const SField fields[] = {{'Y', nYear, "%2d"},  {'M', nMonth, "%02d"},  {'D', nDay, "%02d"},
                             {'h', nHour, "%02d"}, {'m', nMinute, "%02d"}, {'s', nSecond, "%02d"}};
    CString strFilled(strFormat);
    for (const SField& field : fields) {
        std::array<char, 8> value; // at most 7 characters of a field
        const char szPlain[] = {'$', field.chMarker, '\0'};
        std::snprintf(value.data(), value.size(), "%d", field.nValue);
        if (strFilled.Replace(szPlain, value.data()) > 0)
            continue;
        const char szTwo[] = {'$', '2', field.chMarker, '\0'};
        std::snprintf(value.data(), value.size(), field.szTwoPlaces, field.nValue);
        strFilled.Replace(szTwo, value.data());
    }
    strTime = strFilled;
}
