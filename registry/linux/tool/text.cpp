#include "text.h"

#include <charconv>
#include <ctime>

namespace obregtool {

std::string repairedUtf8(std::string_view text)
{
    std::string repaired;
    for (size_t at = 0; at < text.size();) {
        const std::optional<uint32_t> character = takeUtf8(text, at);
        at += character ? 0 : 1;
        appendUtf8(repaired, character.value_or(0xFFFD));
    }
    return repaired;
}

std::string upperCase(std::string text)
{
    for (char& c : text)
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
    return text;
}

int compareFolded(std::string_view a, std::string_view b)
{
    const auto byte = [](char c) { return static_cast<unsigned char>(lowerCase(c)); };
    for (size_t i = 0; i < std::min(a.size(), b.size()); ++i)
        if (byte(a[i]) != byte(b[i]))
            return byte(a[i]) < byte(b[i]) ? -1 : 1;
    return a.size() == b.size() ? 0 : a.size() < b.size() ? -1 : 1;
}

std::string shellQuoted(const std::string& text)
{
    constexpr std::string_view harmless = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-./@:+,";
    if (!text.empty() && text.find_first_not_of(harmless) == std::string::npos)
        return text;
    std::string quoted = "'";
    for (const char c : text)
        quoted += c == '\'' ? "'\\''" : std::string(1, c);
    return quoted + "'";
}

std::optional<std::string> bytesOfHex(std::string_view hex)
{
    std::string bytes;
    for (size_t i = 0; i < hex.size(); ++i) {
        if (std::string_view(" \t\n\r,:").find(hex[i]) != std::string_view::npos)
            continue;
        const int high = hexDigit(hex[i]);
        const int low = i + 1 < hex.size() ? hexDigit(hex[i + 1]) : -1;
        if (high < 0 || low < 0)
            return std::nullopt;
        bytes += static_cast<char>(high << 4 | low);
        ++i;
    }
    return bytes;
}

std::optional<uint64_t> numberOf(std::string_view text, uint64_t greatest)
{
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        text.remove_prefix(2);
        base = 16;
    }
    uint64_t number = 0;
    const char* const pEnd = text.data() + text.size();
    const auto [pStop, error] = std::from_chars(text.data(), pEnd, number, base);
    if (error != std::errc() || pStop != pEnd || number > greatest)
        return std::nullopt;
    return number;
}

namespace {

constexpr uint64_t UnitsPerSecond = 10000000;

time_t secondsOf(uint64_t time)
{
    constexpr int64_t secondsTo1970 = 11644473600;
    return static_cast<time_t>(static_cast<int64_t>(time / UnitsPerSecond) - secondsTo1970);
}

std::string formatted(const tm& parts, const char* pFormat)
{
    char text[64];
    return {text, strftime(text, sizeof(text), pFormat, &parts)};
}

} // namespace

std::string counted(uint64_t count, const char* pWhat)
{
    return std::to_string(count) + ' ' + pWhat + (count == 1 ? "" : "s");
}

std::string timeText(uint64_t time)
{
    const time_t seconds = secondsOf(time);
    tm parts{};
    gmtime_r(&seconds, &parts);
    const std::string fraction = std::to_string(time % UnitsPerSecond + UnitsPerSecond).substr(1);
    return formatted(parts, "%Y-%m-%dT%H:%M:%S") + '.' + fraction + 'Z';
}

std::string localTimeText(uint64_t time)
{
    const time_t seconds = secondsOf(time);
    tm parts{};
    localtime_r(&seconds, &parts);
    return formatted(parts, "%Y-%m-%d %H:%M:%S %z");
}

} // namespace obregtool
