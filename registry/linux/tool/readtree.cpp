#include "readtree.h"

#include <algorithm>
#include <mutex>

#include "alarm.h"
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

REGSTATUS fetch(const obreg::Key& key, UINT32 index, obreg::SubKey& entry)
{
    REGSTATUS status = OBREG_STATUS_BUFFER_TOO_SMALL;
    while (status == OBREG_STATUS_BUFFER_TOO_SMALL)
        status = obreg::detail::fetchOnce(key.handle(), index, entry);
    return status;
}

/// What a value's entry is read into. The buffers grow with what is met; `length` is that of all data, and the data of
/// a large value are not there.
struct FetchedValue {
    std::string name = std::string(256, '\0');
    obreg::Value value = {REG_NONE, std::string(256, '\0')};
    int nameLength = 0;
    UINT32 length = 0;
};

REGSTATUS fetch(const obreg::Key& key, UINT32 index, FetchedValue& entry)
{
    for (;;) {
        std::string& data = entry.value.data;
        entry.nameLength = static_cast<int>(entry.name.size());
        entry.length = static_cast<UINT32>(data.size());
        const REGSTATUS status = OBRegEnumValueA(key.handle(), index, entry.name.data(), &entry.nameLength, nullptr,
                                                 &entry.value.type, data.data(), &entry.length);
        if (status != OBREG_STATUS_BUFFER_TOO_SMALL)
            return status;
        const size_t nameLength = entry.nameLength < 0 ? 0 : static_cast<size_t>(entry.nameLength);
        const bool haveName = nameLength < entry.name.size(); // with its NUL
        if (haveName && entry.length > LargeValue)
            return OBREG_STATUS_SUCCESS;
        entry.name.resize(std::max(entry.name.size(), nameLength));
        data.resize(std::max<size_t>(data.size(), std::min(entry.length, LargeValue)));
    }
}

/// Reads the entries below `count` by position and gives each that is there to `keep`, from several threads.
template <class Entry, class Keep>
void fetchAll(const obreg::Key& key, const KeyPath& path, UINT32 count, size_t fewEach, const Keep& keep)
{
    const auto fetchOne = [&](size_t index) {
        thread_local Entry entry; // its buffers grow once
        const REGSTATUS status = fetch(key, static_cast<UINT32>(index), entry);
        if (status == OBREG_STATUS_SUCCESS)
            keep(index, entry);
        else if (status != OBREG_STATUS_NO_MORE_ENTRIES)
            check(obreg::errorCode(status), path);
    };
    forEachParallel(count, fetchOne, fewEach);
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

void fetchValues(const obreg::Key& key, const KeyPath& path, const obreg::KeyInfo& info, HeldBytes& held,
                 std::vector<ValueEntry>& values)
{
    const auto keep = [&](size_t index, const FetchedValue& value) {
        ValueEntry& entry = values[index];
        entry.name.assign(value.name, 0, static_cast<size_t>(value.nameLength));
        entry.length = value.length;
        entry.position = index;
        if (value.length <= LargeValue && held.take(value.length))
            entry.held = {value.value.type, value.value.data.substr(0, value.length)};
    };
    if (info.maxValueLength <= LargeValue) {
        fetchAll<FetchedValue>(key, path, info.values, FewEntriesEach, keep);
        return;
    }
    // Long ones come in two at a time, of all keys: while one does, the daemon reads the other.
    static std::mutex oneKey;
    const std::lock_guard lock(oneKey);
    fetchAll<FetchedValue>(key, path, info.values, std::max<size_t>(info.values, 2) - 1, keep);
}

KeyContent readEntries(const obreg::Key& key, const KeyPath& path, Read what, HeldBytes& held)
{
    const obreg::KeyInfo info = infoOf(key, path);
    KeyContent content;
    content.lastWriteTime = info.lastWriteTime;
    if (what != Read::SubKeys) {
        content.values.resize(info.values);
        fetchValues(key, path, info, held, content.values);
        sortByName(content.values);
    }
    if (what != Read::Values) {
        content.subKeys.resize(info.subKeys);
        fetchAll<obreg::SubKey>(key, path, info.subKeys, FewEntriesEach,
                                [&](size_t index, const obreg::SubKey& subKey) { content.subKeys[index] = subKey; });
        sortByName(content.subKeys);
    }
    return content;
}

/// The failure, with how many of the keys had been deleted.
Failure afterDeleting(Failure failure, const KeyPath& path, uint64_t done, uint64_t count)
{
    const std::string figures =
        done == 0 ? "none" : std::to_string(done) + " of " + std::to_string(count) + ", the deepest first,";
    failure.addAdvice("of the keys of " + subjectText(path) + ' ' + figures +
                      (done == 1 || done == 0 ? " was deleted" : " were deleted"));
    failure.details = {{"deleted", done}};
    return failure;
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
    throw Failure(ExitFailed, subjectText(path) + ": kept changing while it was read",
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
    obreg::Value value;
    REGSTATUS status = OBREG_STATUS_BUFFER_TOO_SMALL;
    while (status == OBREG_STATUS_BUFFER_TOO_SMALL) { // with the room that it had, so mostly once
        value.data.resize(entry.length);
        status = OBRegQueryValueExA(key.handle(), entry.name.c_str(), nullptr, &value.type, value.data.data(),
                                    &entry.length);
    }
    if (status == OBREG_STATUS_NOT_FOUND)
        return std::nullopt;
    check(obreg::errorCode(status), path, &entry.name);
    value.data.resize(entry.length);
    return obreg::NamedValue{std::move(entry.name), std::move(value)};
}

std::optional<obreg::Value> findValue(const obreg::Key& key, const KeyPath& path, const std::string& name)
{
    std::error_code error;
    auto value = key.get<obreg::Value>(name, error);
    if (error == obreg::Status::notFound || error == obreg::Status::keyDeleted)
        return std::nullopt;
    check(error, path, &name);
    return value;
}

std::optional<obreg::Value> findValue(const KeyPath& path, const std::string& name)
{
    std::error_code error;
    const obreg::Key key = openKey(path, KEY_READ, error);
    if (error == obreg::Status::notFound || error == obreg::Status::keyDeleted)
        return std::nullopt;
    check(error, path, &name);
    return findValue(key, path, name);
}

void walk(const KeyPath& path, bool recursive, const Visit& visit, Read what)
{
    TreeReader reader(path, recursive ? UINT64_MAX : 0, what);
    while (TreeReader::Entry* const pEntry = reader.next())
        visit(pEntry->path, pEntry->key, pEntry->content, pEntry->depth);
}

size_t removeTree(const KeyPath& path)
{
    letInterruptsEndWork();
    std::vector<std::vector<KeyPath>> levels;
    const auto note = [&levels](const KeyPath& key, const obreg::Key&, const KeyContent&, size_t depth) {
        endIfInterrupted();
        levels.resize(std::max(levels.size(), depth + 1));
        levels[depth].push_back(key);
    };
    try {
        walk(path, true, note, Read::SubKeys);
    } catch (const Failure& failure) {
        if (failure.exit != ExitInterrupted)
            throw;
        throw afterDeleting(failure, path, 0, 0);
    }
    return removeKeys(path, levels);
}

size_t removeKeys(const KeyPath& top, const std::vector<std::vector<KeyPath>>& levels)
{
    size_t count = 0;
    for (const std::vector<KeyPath>& keys : levels)
        count += keys.size();
    std::atomic<size_t> done{0};
    const auto remove = [&done](const KeyPath& key) {
        endIfInterrupted();
        std::error_code error;
        obreg::Key::root(key.root).remove(key.path, error);
        if (error != obreg::Status::notFound) // somebody else was faster
            check(error, key);
        ++done;
    };
    try {
        for (size_t depth = levels.size(); depth-- > 0;)
            forEachParallel(levels[depth].size(), [&](size_t i) { remove(levels[depth][i]); });
    } catch (const Failure& failure) {
        if (done == 0 && failure.exit != ExitInterrupted)
            throw;
        throw afterDeleting(failure, top, done, count);
    }
    return count;
}

} // namespace obregtool
