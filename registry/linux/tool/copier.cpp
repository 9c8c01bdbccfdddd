#include "copier.h"

#include <algorithm>

#include "parallel.h"

namespace obregtool {

namespace {

constexpr size_t MostWaiting = 512; // keys
constexpr size_t MostBytes = 16u << 20;
constexpr size_t MostThreads = 5 * RequestThreads; // with those that read; writes in flight together share one commit

} // namespace

void Copier::copy(TreeReader::Entry& from, const KeyPath& target)
{
    Key key{target, {}};
    std::vector<ValueEntry>& entries = from.content.values;
    std::sort(entries.begin(), entries.end(),
              [](const ValueEntry& a, const ValueEntry& b) { return a.position < b.position; });
    key.values.reserve(entries.size());
    m_waiting.push_back(std::move(key));
    for (ValueEntry& entry : entries)
        if (std::optional<obreg::NamedValue> value = takeValue(from.key, from.path, std::move(entry))) {
            m_bytes += value->name.size() + value->value.data.size();
            m_waiting.back().values.push_back(*std::move(value));
            if (m_bytes >= MostBytes) {
                write();
                m_waiting.push_back({target, {}});
            }
        }
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
    std::error_code error;
    const obreg::Key target = key.target.create(nullptr, error);
    check(error, key.target);
    ++m_keys;
    for (const obreg::NamedValue& value : key.values) {
        if (m_failed)
            return;
        target.set(value.name, value.value, error);
        check(error, key.target, &value.name, value.value.data.size());
        ++m_values;
    }
}

KeyPath moved(const KeyPath& key, const KeyPath& top, const KeyPath& target)
{
    return key.path.size() == top.path.size() ? target
                                              : target.child(key.path.substr(top.isRoot() ? 0 : top.path.size() + 1));
}

} // namespace obregtool
