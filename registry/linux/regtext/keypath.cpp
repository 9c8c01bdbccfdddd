#include "regtext/keypath.h"

#include <unistd.h>

#include "regtext/characters.h"
#include "regtext/nearmiss.h"

namespace regtext {

const std::vector<Root>& roots()
{
    static const std::vector<Root> all = {
        {"HKLM", "HKEY_LOCAL_MACHINE", HKEY_LOCAL_MACHINE},       {"HKCU", "HKEY_CURRENT_USER", HKEY_CURRENT_USER},
        {"HKCR", "HKEY_CLASSES_ROOT", HKEY_CLASSES_ROOT},         {"HKU", "HKEY_USERS", HKEY_USERS},
        {"HKPD", "HKEY_PERFORMANCE_DATA", HKEY_PERFORMANCE_DATA},
    };
    return all;
}

namespace {

constexpr size_t HandleDigits = 8;

std::string rootName(HANDLE handle)
{
    for (const Root& root : roots())
        if (root.handle == handle)
            return root.pName;
    return '#' + hexOfNumber(reinterpret_cast<uintptr_t>(handle), HandleDigits);
}

/// The handle of "#0000002a"; null when it is none.
HANDLE handleOf(std::string_view name)
{
    uintptr_t number = 0;
    if (name.size() != 1 + HandleDigits)
        return nullptr;
    for (const char c : name.substr(1)) {
        if (hexDigit(c) < 0)
            return nullptr;
        number = number << 4 | static_cast<uintptr_t>(hexDigit(c));
    }
    return reinterpret_cast<HANDLE>(number);
}

} // namespace

std::string KeyPath::text() const { return rootName(root) + (path.empty() ? "" : '\\' + path); }

std::string KeyPath::name() const { return path.empty() ? rootName(root) : path.substr(path.rfind('\\') + 1); }

KeyPath KeyPath::child(const std::string& name) const { return {root, path.empty() ? name : path + '\\' + name}; }

KeyPath KeyPath::parent() const
{
    const size_t last = path.rfind('\\');
    return {root, last == std::string::npos ? "" : path.substr(0, last)};
}

std::string KeyPath::identity() const
{
    KeyPath key = *this;
    if (root == HKEY_CURRENT_USER) {
        key = {HKEY_USERS, std::to_string(geteuid())};
        if (!path.empty())
            key = key.child(path);
    }
    return folded(key.text());
}

bool KeyPath::isWithin(const KeyPath& other) const
{
    const std::string mine = identity() + '\\';
    const std::string outer = other.identity() + '\\';
    return mine.compare(0, outer.size(), outer) == 0;
}

KeyPath parseKey(std::string_view text, KeyForm form)
{
    const size_t end = std::min(text.find_first_of(form == KeyForm::Slashes ? "\\/" : "\\"), text.size());
    const std::string name = folded(text.substr(0, end));
    KeyPath key;
    if (form == KeyForm::Handles && !name.empty() && name.front() == '#') {
        key.root = handleOf(name);
        if (key.root == nullptr)
            throw BadKey{"a key by its handle begins with # and eight hexadecimal digits, not all 0", 0};
    }
    std::string known;
    std::vector<std::string> names;
    for (const Root& root : roots()) {
        if (name == folded(root.pShortName) || name == folded(root.pName))
            key.root = root.handle;
        known += std::string(known.empty() ? "" : ", ") + root.pShortName;
        names.insert(names.end(), {root.pShortName, root.pName});
    }
    if (key.root == nullptr)
        throw BadKey{"a key begins with a root (" + known + " or their long names" + didYouMean(name, names) + ')', 0};

    const std::string_view separators =
        form == KeyForm::Slashes && end < text.size() && text[end] == '/' ? "\\/" : "\\";
    for (size_t begin = end + 1; begin < text.size();) {
        const size_t stop = std::min(text.find_first_of(separators, begin), text.size());
        const std::string one(text.substr(begin, stop - begin));
        for (size_t i = 0; i < one.size(); ++i)
            if (isControl(one[i]))
                throw BadKey{"a key's name has no control characters", begin + i};
        if (one.empty())
            throw BadKey{"a key's name is not empty", begin};
        if (!key.path.empty())
            key.path += '\\';
        key.path += one;
        begin = stop + 1; // one separator at the end is overlooked
    }
    return key;
}

} // namespace regtext
