#include "undoing.h"

#include <algorithm>

#include "errors.h"
#include "readtree.h"
#include "text.h"

namespace obregtool {

namespace {

[[noreturn]] void throwMissing(const std::string& what, uint64_t number, const std::string& why)
{
    throw Failure(ExitFailed, what + ": " + why + " (change " + std::to_string(number) + ')',
                  "nothing was changed; undo other changes, or bring this back from a backup");
}

} // namespace

void Undoing::take(const PastChange& change)
{
    ++m_changes;
    KeyBefore& key = m_keys[change.key.identity()];
    key.path = change.key;
    if (change.isOfKey()) {
        key.existed = change.kind == PastChange::KeyDeleted;
        key.lostBy = change.lost != 0 ? change.number : 0;
        if (!*key.existed)
            for (auto& [id, value] : key.values)
                value.past = {};
        return;
    }
    const std::string id = isUnnamed(change.name) ? "" : folded(change.name);
    key.values[id] = {change.name, change.before, change.number};
}

void Undoing::look(uint64_t since)
{
    m_since = since;
    for (const auto& [identity, key] : m_keys) {
        if (!m_removed.empty() && key.path.isWithin(m_removed.back()))
            continue;
        std::error_code error;
        const obreg::Key open = openKey(key.path, KEY_READ, error);
        if (error != obreg::Status::notFound)
            check(error, key.path);
        if (key.existed == false) {
            if (open)
                m_removed.push_back(key.path);
            continue;
        }
        if (key.lostBy != 0)
            throwMissing(subjectText(key.path), key.lostBy,
                         "it was deleted with so many values that these were not noted");
        if (!open && key.existed)
            m_made.push_back(key.path);
        lookAt(key, open);
    }
    std::stable_sort(m_values.begin(), m_values.end(), [](const ValueWork& a, const ValueWork& b) {
        const auto turn = [](const ValueWork& work) { return !work.isMark ? 1 : work.before ? 0 : 2; };
        return turn(a) < turn(b);
    });
}

/// Compares the values of a key that is, or will be, there. Empty: it is not yet.
void Undoing::lookAt(const KeyBefore& key, const obreg::Key& open)
{
    for (const auto& [id, value] : key.values) {
        const std::string what = subjectText(key.path, &value.name);
        std::optional<obreg::Value> now = open ? findValue(open, key.path, value.name) : std::nullopt;
        std::optional<obreg::Value> before;
        if (value.past.what == Past::Secret)
            throwMissing(what, value.number, "what was there is secret and was not written down");
        if (value.past.what == Past::NotKept)
            throwMissing(what, value.number, "what was there was not kept: it was too long, or the disk full");
        if (value.past.what == Past::Data)
            before = value.past.value;
        if (before && before->data.empty())
            throwMissing(what, value.number, "what was there had no data, which this program cannot store");
        if (now != before)
            m_values.push_back({key.path, value.name, std::move(now), std::move(before), id == OBREG_SECRET_VALUE});
    }
}

void Undoing::tell(RegSink& sink) const
{
    for (const KeyPath& key : m_removed)
        sink.removeKey(key, {});
    for (const KeyPath& key : m_made)
        sink.key(key, {});
    const KeyPath* pLast = nullptr;
    for (const ValueWork& work : m_values) {
        if (pLast == nullptr || pLast->identity() != work.key.identity())
            sink.key(work.key, {});
        pLast = &work.key;
        if (work.before)
            sink.value(std::string(work.name), obreg::Value(*work.before), {});
        else
            sink.removeValue(std::string(work.name), {});
    }
}

void Undoing::tellConditions(Batch& batch) const
{
    for (const KeyPath& key : m_made)
        batch.requireNoKey(key, {});
    for (const KeyPath& top : m_removed) {
        batch.requireKey(top, {});
        batch.requireUnchanged(m_since, {});
    }
    const auto isMade = [this](const KeyPath& key) {
        const auto isIt = [&key](const KeyPath& made) { return made.identity() == key.identity(); };
        return std::any_of(m_made.begin(), m_made.end(), isIt);
    };
    for (const ValueWork& work : m_values) {
        if (isMade(work.key))
            continue;
        batch.requireKey(work.key, {});
        if (work.now)
            batch.requireValue(std::string(work.name), obreg::Value(*work.now), {});
        else
            batch.requireNoValue(std::string(work.name), {});
    }
}

} // namespace obregtool
