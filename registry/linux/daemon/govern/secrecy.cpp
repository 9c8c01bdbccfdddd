#include "daemon/govern/secrecy.h"

#include <algorithm>
#include <fnmatch.h>
#include <strings.h>

#include "daemon/govern/names.h"
#include "obreg/roots.h"

namespace obregd {

namespace {

const struct {
    const char* pShortName;
    const char* pName;
    KeyId id;
} NamedRoots[] = {{"HKLM", "HKEY_LOCAL_MACHINE", MachineId},
                  {"HKCR", "HKEY_CLASSES_ROOT", ClassesId},
                  {"HKU", "HKEY_USERS", UsersId}};

} // namespace

bool isSecretMark(const std::string& valueName)
{
    return valueName.size() == sizeof(OBREG_SECRET_VALUE) - 1 && strcasecmp(valueName.c_str(), OBREG_SECRET_VALUE) == 0;
}

bool SecretPattern::matches(KeyId pathRoot, const std::vector<std::string>& path) const
{
    const auto isNamed = [](const std::string& pattern, const std::string& name) {
        return fnmatch(pattern.c_str(), name.c_str(), FNM_NOESCAPE | FNM_CASEFOLD) == 0;
    };
    return root == pathRoot && names.size() <= path.size() &&
           std::equal(names.begin(), names.end(), path.begin(), isNamed);
}

std::optional<SecretPattern> secretPattern(const std::string& text)
{
    std::string path = text;
    std::replace(path.begin(), path.end(), '/', '\\');
    SecretPattern pattern{};
    if (!splitPath(path, pattern.names) || pattern.names.empty())
        return std::nullopt;
    for (const auto& root : NamedRoots)
        for (const char* const pName : {root.pShortName, root.pName})
            if (strcasecmp(pattern.names.front().c_str(), pName) == 0)
                pattern.root = root.id;
    if (pattern.root == 0)
        return std::nullopt;
    pattern.names.erase(pattern.names.begin());
    return pattern;
}

} // namespace obregd
