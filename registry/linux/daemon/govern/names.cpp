#include "daemon/govern/names.h"

#include <algorithm>

namespace obregd {

namespace {

bool hasControlCharacter(std::string_view name)
{
    return std::any_of(name.begin(), name.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20; });
}

} // namespace

bool isValueName(std::string_view name) { return name.size() <= MaxValueNameLength && !hasControlCharacter(name); }

bool isToken(std::string_view name)
{
    constexpr std::string_view allowed = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.";
    return !name.empty() && name.size() <= MaxTokenLength && name.find_first_not_of(allowed) == std::string_view::npos;
}

bool splitPath(std::string_view path, std::vector<std::string>& names)
{
    if (path.size() > 1 && path.back() == '\\')
        path.remove_suffix(1);
    if (path.empty())
        return true;
    for (;;) {
        const size_t end = path.find('\\');
        const std::string_view name = path.substr(0, end);
        if (name.empty() || name.size() > MaxKeyNameLength || hasControlCharacter(name) ||
            names.size() == MaxPathLevels)
            return false;
        names.emplace_back(name);
        if (end == std::string_view::npos)
            return true;
        path.remove_prefix(end + 1);
    }
}

} // namespace obregd
