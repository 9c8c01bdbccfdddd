// What is kept secret: values whose data is never written down a second time, in the journal.
//
// A key is secret, with all below it, when it has a value of the name OBREG_SECRET_VALUE, or when one of the operator's
// patterns names it. Everybody reads it all the same: it is about what stays behind when a value is gone.
//
// Stateless; any thread.
#ifndef OBREG_DAEMON_GOVERN_SECRECY_H
#define OBREG_DAEMON_GOVERN_SECRECY_H

#include <optional>
#include <string>
#include <vector>

#include "daemon/tree.h"

namespace obregd {

/// Whether a value of that name marks its key as secret.
bool isSecretMark(const std::string& valueName);

struct SecretPattern {
    KeyId root;
    std::vector<std::string> names; ///< below it, the outermost first, each with the wildcards of a shell

    /// Whether it names the key at that path, outermost name first, or one above it.
    bool matches(KeyId pathRoot, const std::vector<std::string>& path) const;
};

/// Reads "HKLM\Software\*\Credentials": a root's short or long name, then patterns of names, separated by backslashes
/// or slashes. Nothing when it is none.
std::optional<SecretPattern> secretPattern(const std::string& text);

} // namespace obregd

#endif
