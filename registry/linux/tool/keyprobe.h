// What the daemon says of keys that are about to be changed: whether they are there, and whether we may change them.
//
// Nothing is written. Answers are remembered, so they are of the moment of the first question. Owned and called by one
// thread.
#ifndef OBREG_TOOL_KEYPROBE_H
#define OBREG_TOOL_KEYPROBE_H

#include <optional>
#include <string>
#include <system_error>
#include <unordered_map>

#include "keypath.h"

namespace obregtool {

class KeyProbe {
public:
    /// Each throws Failure when the daemon gives no answer, or one that is about neither existence nor rights.

    /// The key, to be read; empty when it is not there.
    obreg::Key open(const KeyPath& key);
    bool exists(const KeyPath& key);
    /// The uppermost key that has to be made for this one to be there; nothing when it is there.
    std::optional<KeyPath> uppermostMissing(const KeyPath& key);

    /// Throws the refusal of a write to this key, or of making it. The right belongs to a tree, so the tree's uppermost
    /// key is asked for, or that above it when it is not there: opened with the access that a write asks for.
    void requireWritable(const KeyPath& key);

private:
    std::unordered_map<std::string, bool> m_exists;             // by identity
    std::unordered_map<std::string, std::error_code> m_refusal; // of trees, by identity
};

} // namespace obregtool

#endif
