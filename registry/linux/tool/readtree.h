// Reading keys whole: their values and sub-keys in order of name, and the trees that they make.
//
// The daemon gives entries in the order in which they were made. Here they come sorted by name, whatever their case,
// the unnamed value first: then the same content looks the same whoever wrote it first, and two keys are compared side
// by side. Requests run on several threads inside; a call is for any thread.
#ifndef OBREG_TOOL_READTREE_H
#define OBREG_TOOL_READTREE_H

#include <atomic>
#include <functional>
#include <future>
#include <optional>
#include <string>
#include <vector>

#include <obreg/registry.hpp>

#include "keypath.h"
#include "text.h"

namespace obregtool {

inline constexpr UINT32 LargeValue = 1u << 20; // bytes: not kept when it is met

/// A value of a key. Its data are read when the key is, unless that would hold too much at once: then when asked for.
struct ValueEntry {
    std::string name;
    std::optional<obreg::Value> held;
    UINT32 length = 0;   ///< of the data
    size_t position = 0; ///< in the order in which the daemon gives them
};

struct KeyContent {
    std::vector<ValueEntry> values;
    std::vector<obreg::SubKey> subKeys;
    UINT64 lastWriteTime = 0;
};

/// The order of entries, by name: less than, equal to or greater than 0. The unnamed value comes first.
int compareValueNames(const std::string& a, const std::string& b);
template <class Entry>
int compareEntries(const Entry& a, const Entry& b)
{
    return std::is_same_v<Entry, obreg::SubKey> ? compareFolded(a.name, b.name) : compareValueNames(a.name, b.name);
}

/// Goes through two lists in order of name and calls f(pA, pB) for each name, with null where a list has it not.
template <class Entry, class F>
void sideBySide(std::vector<Entry>& a, std::vector<Entry>& b, const F& f)
{
    for (size_t i = 0, j = 0; i < a.size() || j < b.size();) {
        const int order = i == a.size() ? 1 : j == b.size() ? -1 : compareEntries(a[i], b[j]);
        f(order <= 0 ? &a[i] : nullptr, order >= 0 ? &b[j] : nullptr);
        i += order <= 0 ? 1 : 0;
        j += order >= 0 ? 1 : 0;
    }
}

enum class Read { All, Values, SubKeys };

/// How many bytes of data one key holds, out of what several may hold together. Any thread.
class HeldBytes {
public:
    explicit HeldBytes(std::atomic<size_t>& all) : m_all(all) {}
    ~HeldBytes() { clear(); }
    HeldBytes(const HeldBytes&) = delete;
    HeldBytes& operator=(const HeldBytes&) = delete;

    /// False when that would be too much.
    bool take(size_t bytes);
    void clear() { m_all -= m_held.exchange(0); }

private:
    std::atomic<size_t>& m_all;
    std::atomic<size_t> m_held{0};
};

/// Reads an open key as it was at one moment: again, when it changed meanwhile. Throws Failure, also when it keeps
/// changing.
KeyContent readKey(const obreg::Key& key, const KeyPath& path, Read what = Read::All);
KeyContent readKey(const obreg::Key& key, const KeyPath& path, Read what, HeldBytes& held);

/// The same, once: when others write meanwhile, entries may be missing.
KeyContent readKeyOnce(const obreg::Key& key, const KeyPath& path, Read what = Read::All);

/// The entry's value; the entry gives it away. Nothing when it has been deleted since.
std::optional<obreg::NamedValue> takeValue(const obreg::Key& key, const KeyPath& path, ValueEntry&& entry);

/// The value of a key that is open, or of one that may not be there; nothing when there is none. Throws Failure.
std::optional<obreg::Value> findValue(const obreg::Key& key, const KeyPath& path, const std::string& name);
std::optional<obreg::Value> findValue(const KeyPath& path, const std::string& name);

/// Takes the values of a key one after the other and calls f(value) for each; those that have been deleted since are
/// left out. While f works, a long one that comes next is read.
template <class F>
void forEachValue(const obreg::Key& key, const KeyPath& path, std::vector<ValueEntry>& entries, const F& f)
{
    const auto take = [&](size_t i) { return takeValue(key, path, std::move(entries[i])); };
    std::future<std::optional<obreg::NamedValue>> next;
    for (size_t i = 0; i < entries.size(); ++i) {
        std::optional<obreg::NamedValue> value = next.valid() ? next.get() : take(i);
        if (i + 1 < entries.size() && entries[i + 1].length > LargeValue)
            next = std::async(take, i + 1); // at next.get() where no thread can be started
        if (value)
            f(*std::move(value));
    }
}

/// Reads a key and, when recursive, everything below it, each key before its sub-keys. Sub-keys that vanish meanwhile
/// are left out. `visit` gets each open key with its content and its depth.
using Visit = std::function<void(const KeyPath& path, const obreg::Key& key, KeyContent& content, size_t depth)>;
void walk(const KeyPath& path, bool recursive, const Visit& visit, Read what = Read::All);

/// Deletes a key and everything below it, the deepest first. Returns how many keys there were.
size_t removeTree(const KeyPath& path);

/// Deletes the keys of a tree, those of the last level first, and returns how many. One that is gone is passed over.
/// Throws Failure, which says how many were deleted.
size_t removeKeys(const KeyPath& top, const std::vector<std::vector<KeyPath>>& levels);

} // namespace obregtool

#endif
