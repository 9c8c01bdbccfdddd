// Copies keys with their values: many at once, each key's values one after the other, so that their order is kept.
//
// Owned and called by one thread. A key is written when enough has come together.
#ifndef OBREG_TOOL_COPIER_H
#define OBREG_TOOL_COPIER_H

#include <atomic>
#include <string>
#include <vector>

#include "errors.h"
#include "regtext/regreader.h"
#include "treereader.h"

namespace obregtool {

class Copier {
public:
    /// Copies a key, and what is up to `depth` levels below it. Ctrl-C ends it early. Throws Failure.
    void copyTree(const KeyPath& from, const KeyPath& to, uint64_t depth);

    uint64_t keys() const { return m_keys; }     ///< that were made, or were there
    uint64_t values() const { return m_values; } ///< that were written

private:
    struct Key {
        KeyPath target;
        std::vector<obreg::NamedValue> values;
    };

    void copy(TreeReader::Entry& from, const KeyPath& target);
    void write();
    void writeKey(const Key& key);

    std::vector<Key> m_waiting;
    size_t m_bytes = 0;
    std::atomic<bool> m_failed{false};
    std::atomic<uint64_t> m_keys{0};
    std::atomic<uint64_t> m_values{0};
};

/// Tells what copyTree changes.
void tellCopy(RegSink& sink, const KeyPath& from, const KeyPath& to, uint64_t depth);

/// Where a key that is below `top`, or is it, comes to stand below `target`.
KeyPath moved(const KeyPath& key, const KeyPath& top, const KeyPath& target);

} // namespace obregtool

#endif
