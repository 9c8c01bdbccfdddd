#include "copier.h"

#include <algorithm>

#include "alarm.h"
#include "output.h"
#include "parallel.h"

namespace obregtool {

namespace {

constexpr size_t MostWaiting = 512; // keys
constexpr size_t MostBytes = 16u << 20;
constexpr size_t MostThreads = 5 * RequestThreads; // with those that read; writes in flight together share one commit

} // namespace

void Copier::copyTree(const KeyPath& from, const KeyPath& to, uint64_t depth)
{
    letInterruptsEndWork();
    Progress progress("copied", 0);
    try {
        TreeReader reader(from, depth, Read::All);
        while (TreeReader::Entry* const pEntry = reader.next()) {
            copy(*pEntry, moved(pEntry->path, from, to));
            progress.update(values());
        }
        write();
    } catch (Failure& failure) {
        failure.details = {{"keys", keys()}, {"values", values()}};
        throw;
    }
}

/// Takes the values of a key that was read, to be written to `target`.
void Copier::copy(TreeReader::Entry& from, const KeyPath& target)
{
    Key key{target, {}};
    std::vector<ValueEntry>& entries = from.content.values;
    std::sort(entries.begin(), entries.end(),
              [](const ValueEntry& a, const ValueEntry& b) { return a.position < b.position; });
    key.values.reserve(entries.size());
    m_waiting.push_back(std::move(key));
    forEachValue(from.key, from.path, entries, [&](obreg::NamedValue&& value) {
        endIfInterrupted();
        m_bytes += value.name.size() + value.value.data.size();
        m_waiting.back().values.push_back(std::move(value));
        if (m_bytes >= MostBytes) {
            write();
            m_waiting.push_back({target, {}});
        }
    });
    entries.clear();
    if (m_waiting.size() >= MostWaiting)
        write();
}

void Copier::write()
{
    const std::vector<Key> keys = std::exchange(m_waiting, {});
    m_bytes = 0;
    const auto one = [&](size_t i) {
        try {
            writeKey(keys[i]);
        } catch (...) {
            m_failed = true;
            throw;
        }
    };
    forEachParallel(keys.size(), one, 1, MostThreads);
}

void Copier::writeKey(const Key& key)
{
    endIfInterrupted();
    std::error_code error;
    const obreg::Key target = makeKey(key.target, nullptr, error);
    check(error, key.target);
    ++m_keys;
    for (const obreg::NamedValue& value : key.values) {
        if (m_failed)
            return;
        endIfInterrupted();
        target.set(value.name, value.value, error);
        check(error, key.target, &value.name, value.value.data.size());
        ++m_values;
    }
}

void tellCopy(RegSink& sink, const KeyPath& from, const KeyPath& to, uint64_t depth)
{
    TreeReader reader(from, depth, Read::All);
    while (TreeReader::Entry* const pEntry = reader.next()) {
        sink.key(moved(pEntry->path, from, to), {});
        forEachValue(pEntry->key, pEntry->path, pEntry->content.values, [&sink](obreg::NamedValue&& value) {
            sink.value(std::move(value.name), std::move(value.value), {});
        });
    }
}

KeyPath moved(const KeyPath& key, const KeyPath& top, const KeyPath& target)
{
    return key.path.size() == top.path.size() ? target
                                              : target.child(key.path.substr(top.isRoot() ? 0 : top.path.size() + 1));
}

} // namespace obregtool
