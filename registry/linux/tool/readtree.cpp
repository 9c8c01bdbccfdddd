#include "readtree.h"

#include <algorithm>

#include "errors.h"
#include "parallel.h"
#include "text.h"
#include "treereader.h"

namespace obregtool {

namespace {

constexpr size_t MaxHeld = 16u << 20;  // bytes of data
constexpr int MostReads = 8;           // of a key that changes
constexpr size_t FewEntriesEach = 256; // fewer are not worth a thread

obreg::KeyInfo infoOf(const obreg::Key& key, const KeyPath& path)
{
    std::error_code error;
    const obreg::KeyInfo info = key.info(error);
    check(error, path);
    return info;
}

/// Reads the entries below `count` by position and gives each that is there to `keep`, from several threads.
template <class Entry, class Keep>
void fetchAll(const obreg::Key& key, const KeyPath& path, UINT32 count, const Keep& keep)
{
    forEachParallel(
        count,
        [&](size_t index) {
            thread_local Entry entry; // its buffers grow once
            REGSTATUS status = OBREG_STATUS_BUFFER_TOO_SMALL;
            while (status == OBREG_STATUS_BUFFER_TOO_SMALL)
                status = obreg::detail::fetchOnce(key.handle(), static_cast<UINT32>(index), entry);
            if (status == OBREG_STATUS_SUCCESS)
                keep(index, entry);
            else if (status != OBREG_STATUS_NO_MORE_ENTRIES)
                check(obreg::errorCode(status), path);
        },
        FewEntriesEach);
}

/// Sorts by name, with the unnamed value first. An entry that was met twice, because others came or went meanwhile, and
/// one that was not met go away.
template <class Entry>
void sortByName(std::vector<Entry>& entries)
{
    const auto missing = [](const Entry& entry) { return entry.name.empty(); };
    entries.erase(std::remove_if(entries.begin(), entries.end(), missing), entries.end());
    const auto order = [](const Entry& a, const Entry& b) { return compareEntries(a, b) < 0; };
    std::sort(entries.begin(), entries.end(), order);
    const auto same = [](const Entry& a, const Entry& b) { return compareFolded(a.name, b.name) == 0; };
    entries.erase(std::unique(entries.begin(), entries.end(), same), entries.end());
}

KeyContent readEntries(const obreg::Key& key, const KeyPath& path, Read what, HeldBytes& held)
{
    const obreg::KeyInfo info = infoOf(key, path);
    KeyContent content;
    content.lastWriteTime = info.lastWriteTime;
    if (what != Read::SubKeys) {
        content.values.resize(info.values);
        fetchAll<obreg::NamedValue>(key, path, info.values, [&](size_t index, const obreg::NamedValue& value) {
            ValueEntry& entry = content.values[index];
            entry.name = value.name;
            entry.position = index;
            if (held.take(value.value.data.size()))
                entry.held = value.value;
        });
        sortByName(content.values);
    }
    if (what != Read::Values) {
        content.subKeys.resize(info.subKeys);
        fetchAll<obreg::SubKey>(key, path, info.subKeys,
                                [&](size_t index, const obreg::SubKey& subKey) { content.subKeys[index] = subKey; });
        sortByName(content.subKeys);
    }
    return content;
}

} // namespace

int compareValueNames(const std::string& a, const std::string& b)
{
    const bool unnamedA = isUnnamed(a);
    const bool unnamedB = isUnnamed(b);
    if (unnamedA != unnamedB)
        return unnamedA ? -1 : 1;
    return unnamedA ? 0 : compareFolded(a, b);
}

bool HeldBytes::take(size_t bytes)
{
    m_held += bytes;
    if ((m_all += bytes) <= MaxHeld)
        return true;
    m_held -= bytes;
    m_all -= bytes;
    return false;
}

KeyContent readKey(const obreg::Key& key, const KeyPath& path, Read what)
{
    std::atomic<size_t> all{0};
    HeldBytes held(all);
    return readKey(key, path, what, held);
}

KeyContent readKey(const obreg::Key& key, const KeyPath& path, Read what, HeldBytes& held)
{
    for (int i = 0; i < MostReads; ++i) {
        KeyContent content = readEntries(key, path, what, held);
        // Figures change all the time, and are always the same ones.
        if (path.root == HKEY_PERFORMANCE_DATA || infoOf(key, path).lastWriteTime == content.lastWriteTime)
            return content;
        held.clear();
    }
    throw Failure(ExitFailed, escaped(path.text(), Escape::Name) + ": kept changing while it was read",
                  "run this again when less is written there");
}

KeyContent readKeyOnce(const obreg::Key& key, const KeyPath& path, Read what)
{
    std::atomic<size_t> all{0};
    HeldBytes held(all);
    return readEntries(key, path, what, held);
}

std::optional<obreg::NamedValue> takeValue(const obreg::Key& key, const KeyPath& path, ValueEntry&& entry)
{
    if (entry.held)
        return obreg::NamedValue{std::move(entry.name), *std::move(entry.held)};
    std::error_code error;
    auto value = key.get<obreg::Value>(entry.name, error);
    if (error == obreg::Status::notFound)
        return std::nullopt;
    check(error, path, &entry.name);
    return obreg::NamedValue{std::move(entry.name), std::move(value)};
}

void walk(const KeyPath& path, bool recursive, const Visit& visit, Read what)
{
    TreeReader reader(path, recursive ? UINT64_MAX : 0, what);
    while (TreeReader::Entry* const pEntry = reader.next())
        visit(pEntry->path, pEntry->key, pEntry->content, pEntry->depth);
}

size_t removeTree(const KeyPath& path)
{
    std::vector<std::vector<KeyPath>> levels;
    const auto note = [&levels](const KeyPath& key, const obreg::Key&, const KeyContent&, size_t depth) {
        levels.resize(std::max(levels.size(), depth + 1));
        levels[depth].push_back(key);
    };
    walk(path, true, note, Read::SubKeys);
    removeKeys(levels);
    size_t count = 0;
    for (const std::vector<KeyPath>& keys : levels)
        count += keys.size();
    return count;
}

void removeKeys(const std::vector<std::vector<KeyPath>>& levels)
{
    for (size_t depth = levels.size(); depth-- > 0;) {
        const std::vector<KeyPath>& keys = levels[depth];
        forEachParallel(keys.size(), [&](size_t i) {
            std::error_code error;
            obreg::Key::root(keys[i].root).remove(keys[i].path, error);
            if (error != obreg::Status::notFound) // somebody else was faster
                check(error, keys[i]);
        });
    }
}

} // namespace obregtool
