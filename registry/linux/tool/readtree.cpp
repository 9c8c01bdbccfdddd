#include "readtree.h"

#include <algorithm>
#include <atomic>

#include "errors.h"
#include "parallel.h"
#include "text.h"

namespace obregtool {

namespace {

constexpr size_t MaxHeld = 16u << 20; // bytes of one key's data
constexpr int MostReads = 8;          // of a key that changes

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
    forEachParallel(count, [&](size_t index) {
        thread_local Entry entry; // its buffers grow once
        REGSTATUS status = OBREG_STATUS_BUFFER_TOO_SMALL;
        while (status == OBREG_STATUS_BUFFER_TOO_SMALL)
            status = obreg::detail::fetchOnce(key.handle(), static_cast<UINT32>(index), entry);
        if (status == OBREG_STATUS_SUCCESS)
            keep(index, entry);
        else if (status != OBREG_STATUS_NO_MORE_ENTRIES)
            check(obreg::errorCode(status), path);
    });
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

void walkFrom(const KeyPath& path, const obreg::Key& key, KeyContent&& content, bool recursive, const Visit& visit,
              Read what, size_t depth)
{
    if (!visit(path, key, content, depth) || !recursive)
        return;
    content.values = {};
    for (const obreg::SubKey& subKey : content.subKeys)
        if (std::optional<OpenedKey> below = readSubKey(key, path, subKey.name, what))
            walkFrom(path.child(subKey.name), below->key, std::move(below->content), recursive, visit, what, depth + 1);
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

KeyContent readKey(const obreg::Key& key, const KeyPath& path, Read what)
{
    for (int i = 0; i < MostReads; ++i) {
        KeyContent content = readKeyOnce(key, path, what);
        // Figures change all the time, and are always the same ones.
        if (path.root == HKEY_PERFORMANCE_DATA || infoOf(key, path).lastWriteTime == content.lastWriteTime)
            return content;
    }
    throw Failure(ExitFailed, escaped(path.text(), Escape::Name) + ": kept changing while it was read",
                  "run this again when less is written there");
}

KeyContent readKeyOnce(const obreg::Key& key, const KeyPath& path, Read what)
{
    const obreg::KeyInfo info = infoOf(key, path);
    KeyContent content;
    content.lastWriteTime = info.lastWriteTime;
    if (what != Read::SubKeys) {
        std::atomic<size_t> held{0};
        content.values.resize(info.values);
        fetchAll<obreg::NamedValue>(key, path, info.values, [&](size_t index, const obreg::NamedValue& value) {
            ValueEntry& entry = content.values[index];
            entry.name = value.name;
            if ((held += value.value.data.size()) <= MaxHeld)
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

std::optional<OpenedKey> readSubKey(const obreg::Key& key, const KeyPath& path, const std::string& name, Read what)
{
    try {
        const KeyPath below = path.child(name);
        std::error_code error;
        OpenedKey opened{obreg::Key::open(key, name, KEY_READ, error), {}};
        check(error, below);
        opened.content = readKey(opened.key, below, what);
        return opened;
    } catch (const Failure& failure) {
        if (failure.exit != ExitNotFound)
            throw;
        return std::nullopt;
    }
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
    const obreg::Key key = path.open();
    walkFrom(path, key, readKey(key, path, what), recursive, visit, what, 0);
}

size_t removeTree(const KeyPath& path)
{
    std::vector<std::vector<KeyPath>> levels;
    const auto note = [&levels](const KeyPath& key, const obreg::Key&, const KeyContent&, size_t depth) {
        levels.resize(std::max(levels.size(), depth + 1));
        levels[depth].push_back(key);
        return true;
    };
    walk(path, true, note, Read::SubKeys);
    size_t count = 0;
    for (size_t depth = levels.size(); depth-- > 0;) {
        const std::vector<KeyPath>& keys = levels[depth];
        forEachParallel(keys.size(), [&](size_t i) {
            std::error_code error;
            obreg::Key::root(keys[i].root).remove(keys[i].path, error);
            if (error != obreg::Status::notFound) // somebody else was faster
                check(error, keys[i]);
        });
        count += keys.size();
    }
    return count;
}

} // namespace obregtool
