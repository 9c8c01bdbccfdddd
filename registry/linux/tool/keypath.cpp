#include "keypath.h"

#include "errors.h"
#include "text.h"

namespace obregtool {

obreg::Key openKey(const KeyPath& path, UINT32 access, std::error_code& error)
{
    error.clear();
    return path.isRoot() ? obreg::Key::root(path.root)
                         : obreg::Key::open(obreg::Key::root(path.root), path.path, access, error);
}

obreg::Key openKey(const KeyPath& path, UINT32 access)
{
    std::error_code error;
    obreg::Key key = openKey(path, access, error);
    check(error, path);
    return key;
}

obreg::Key makeKey(const KeyPath& path, bool* pCreated, std::error_code& error)
{
    error.clear();
    if (pCreated != nullptr)
        *pCreated = false;
    return path.isRoot() ? obreg::Key::root(path.root)
                         : obreg::Key::create(obreg::Key::root(path.root), path.path, KEY_ALL_ACCESS, pCreated, error);
}

KeyPath keyArgument(const std::string& text)
{
    try {
        return parseKey(text, KeyForm::Slashes);
    } catch (const BadKey& bad) {
        throw UsageError("key \"" + escaped(text, Escape::Name) + "\": " + bad.message +
                         "; write it like HKLM/Software/Acme or 'HKLM\\Software\\Acme'");
    }
}

bool isUnnamed(std::string_view valueName)
{
    return valueName.empty() || valueName == "@" || folded(valueName) == "default";
}

} // namespace obregtool
