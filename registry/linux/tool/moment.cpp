#include "moment.h"

#include <array>
#include <cstdio>
#include <cstdlib>
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

/// How far the local clock is ahead then, in seconds.
int64_t aheadAt(time_t time)
{
    tm local{};
    localtime_r(&time, &local);
    return local.tm_gmtoff;
}

std::string zoneText(int64_t ahead)
{
    const auto minutes = static_cast<int>(std::abs(ahead) / 60);
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "%c%02d%02d", ahead < 0 ? '-' : '+', minutes / 60, minutes % 60);
    return text.data();
}

/// The seconds since 1970 of what the local clock shows. A time that it shows twice, or passes over, when it is set
/// back or forward, must be told with its zone; a day alone begins with the first moment that the clock shows on it.
std::optional<int64_t> localSeconds(const std::string& text, tm parts, bool dayAlone)
{
    const time_t shown = timegm(&parts);
    const int64_t before = aheadAt(shown - 86400);
    const int64_t after = aheadAt(shown + 86400);
    const bool isBefore = aheadAt(shown - before) == before;
    const bool isAfter = aheadAt(shown - after) == after;
    if (isBefore != isAfter || before == after)
        return shown - (isBefore ? before : after);
    if (dayAlone) { // which can be passed over as a whole, by a zone that crosses the date line
        const time_t first = shown - before;
        tm local{};
        localtime_r(&first, &local);
        return local.tm_mday == parts.tm_mday ? std::optional<int64_t>(first) : std::nullopt;
    }
    throw UsageError("the local clock " +
                     std::string(isBefore ? "shows \"" + text + "\" twice: it is set back"
                                          : "never shows \"" + text + "\": it is set forward") +
                     "; write the zone behind it: '" + text + ' ' + zoneText(before) + "' or '" + text + ' ' +
                     zoneText(after) + '\'');
}

/// The seconds since 1970 of a date and time.
std::optional<int64_t> dated(const std::string& text, time_t now)
{
    tm today{};
    localtime_r(&now, &today);
    today.tm_hour = today.tm_min = today.tm_sec = 0;
    static constexpr const char* DayAlone = "%Y-%m-%d";
    for (const char* const pFormat : {DayAlone, "%Y-%m-%d %H:%M", "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M",
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
        const int day = parts.tm_mday;
        const int64_t shown = timegm(&parts);
        if (parts.tm_mday != day ||
            shown - 86400 < -static_cast<int64_t>(SecondsTo1970)) // no such day; before all time
            return std::nullopt;
        return *pEnd == '\0' ? localSeconds(text, parts, pFormat == DayAlone) : shown - zone.tm_gmtoff;
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
