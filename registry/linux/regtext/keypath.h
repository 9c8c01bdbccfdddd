// Where a key is: a predefined root and the path below it, and how people write that.
//
// Stateless values; any thread.
#ifndef OBREG_REGTEXT_KEYPATH_H
#define OBREG_REGTEXT_KEYPATH_H

#include <string>
#include <string_view>
#include <vector>

#include <obreg/roots.h>

namespace regtext {

struct Root {
    const char* pShortName;
    const char* pName;
    HANDLE handle;
};
const std::vector<Root>& roots();

struct KeyPath {
    HANDLE root = nullptr; ///< a predefined root, or any key by its handle
    std::string path;      ///< names separated by backslashes; empty for the root itself

    bool isRoot() const { return path.empty(); }
    std::string text() const; ///< "HKEY_LOCAL_MACHINE\Software\Acme", or "#0000002a\Acme"
    std::string name() const; ///< the last name; the root's for a root
    KeyPath child(const std::string& name) const;
    KeyPath parent() const; ///< a root is its own parent

    /// The same for all spellings of one key: ASCII letters in lower case, the current user's root as its key below the
    /// users' root.
    std::string identity() const;
    /// True when this is the other key or is below it.
    bool isWithin(const KeyPath& other) const;
};

/// What is wrong with the text of a key, and at which byte.
struct BadKey {
    std::string message;
    size_t offset;
};

/// How the text of a key is to be read.
enum class KeyForm {
    Plain,   ///< a root and names, with backslashes between; a slash is an ordinary byte of a name
    Slashes, ///< a slash after the root makes both kinds of slash separators
    Handles, ///< as Plain, and "#" with the eight hexadecimal digits of a handle may stand for the root
};

/// Reads "HKLM\Software\Acme", long root names and any case of a root too. Throws BadKey.
KeyPath parseKey(std::string_view text, KeyForm form);

} // namespace regtext

#endif
