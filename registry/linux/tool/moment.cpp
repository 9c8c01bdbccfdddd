#include "moment.h"

#include <cstring>
#include <ctime>
#include <map>
#include <pwd.h>

#include "errors.h"
#include "text.h"

namespace obregtool {

namespace {

constexpr uint64_t TicksOfSecond = 10'000'000;
constexpr uint64_t SecondsTo1970 = 11'644'473'600; // from 1601

uint64_t ticksOf(int64_t secondsOfUnix)
{
    return (static_cast<uint64_t>(secondsOfUnix) + SecondsTo1970) * TicksOfSecond;
}

/// "3d" and its like, in seconds.
std::optional<int64_t> ago(const std::string& text)
{
    constexpr struct {
        char unit;
        int64_t seconds;
    } units[] = {{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}, {'w', 604800}};
    if (text.empty())
        return std::nullopt;
    const std::optional<uint64_t> count = numberOf(text.substr(0, text.size() - 1), 100'000);
    for (const auto& [unit, seconds] : units)
        if (count && text.back() == unit)
            return static_cast<int64_t>(*count) * seconds;
    return std::nullopt;
}

/// The seconds since 1970 of a date and time.
std::optional<int64_t> dated(const std::string& text, time_t now)
{
    tm today{};
    localtime_r(&now, &today);
    today.tm_hour = today.tm_min = today.tm_sec = 0;
    for (const char* const pFormat : {"%Y-%m-%d", "%Y-%m-%d %H:%M", "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M",
                                      "%Y-%m-%dT%H:%M:%S", "%H:%M", "%H:%M:%S"}) {
        tm parts = today;
        const char* pEnd = strptime(text.c_str(), pFormat, &parts);
        if (pEnd == nullptr)
            continue;
        if (*pEnd == '.') // a part of a second, which is passed over
            pEnd += 1 + strspn(pEnd + 1, "0123456789");
        tm zone{};
        const bool utc = strcmp(pEnd, "Z") == 0;
        const char* const pZoneEnd = *pEnd == '\0' || utc ? nullptr : strptime(pEnd, " %z", &zone);
        if (*pEnd != '\0' && !utc && (pZoneEnd == nullptr || *pZoneEnd != '\0'))
            continue;
        parts.tm_isdst = -1;
        const int day = parts.tm_mday;
        const int64_t seconds = *pEnd == '\0' ? mktime(&parts) : timegm(&parts) - zone.tm_gmtoff;
        if (parts.tm_mday != day || seconds < -static_cast<int64_t>(SecondsTo1970)) // no such day, or before all time
            return std::nullopt;
        return seconds;
    }
    return std::nullopt;
}

} // namespace

Moment momentArgument(const std::string& text)
{
    if (const std::optional<uint64_t> number = numberOf(text, INT64_MAX))
        return {false, *number};
    const time_t now = time(nullptr);
    if (const std::optional<int64_t> seconds = ago(text))
        return {true, ticksOf(now - *seconds)};
    if (const std::optional<int64_t> seconds = dated(text, now))
        return {true, ticksOf(*seconds)};
    throw UsageError('"' + escaped(text, Escape::Name) +
                     "\" is no change's number and no time; write 1041, '2026-11-22 22:18:46', 22:18, or 10m, 2h, 3d "
                     "for so long ago");
}

uint64_t userArgument(const std::string& text)
{
    if (const std::optional<uint64_t> uid = numberOf(text, UINT32_MAX))
        return *uid;
    const passwd* const pUser = getpwnam(text.c_str());
    if (pUser == nullptr)
        throw UsageError("there is no user \"" + escaped(text, Escape::Name) + "\"; give the number");
    return pUser->pw_uid;
}

std::string userName(uint64_t uid)
{
    static std::map<uint64_t, std::string> names; // looking one up may ask the network
    const auto [at, isNew] = names.emplace(uid, std::to_string(uid));
    if (const passwd* const pUser = isNew ? getpwuid(static_cast<uid_t>(uid)) : nullptr)
        at->second = pUser->pw_name;
    return at->second;
}

} // namespace obregtool
