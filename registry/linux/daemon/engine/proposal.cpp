#include "daemon/engine/proposal.h"

#include <map>
#include <set>

#include "obreg/roots.h"

namespace obregd {

namespace {

/// Collects what is proposed for one share; each entry once.
class Collector {
public:
    Collector(WritableStore& store, SharedCopy& copy) : m_store(store), m_copy(copy), m_revision(copy.revision()) {}

    void add(const Change& change, const std::string& path)
    {
        const std::string key = names().key(path);
        switch (change.kind) {
        case ChangeKind::KeyMade:
            rest(key);
            set(key, {change.time, change.author.uid, 0, 0, change.name, {}}, true);
            break;
        case ChangeKind::KeyDeleted:
            removeKey(path);
            touch(change, parentOf(path));
            break;
        case ChangeKind::ValueSet:
            rest(key);
            setValue(change, path);
            break;
        case ChangeKind::ValueDeleted:
            rest(key);
            removeValue(names().value(path, change.name));
            touch(change, path);
        }
    }

    /// The proposal rests on the entry as it is here. Returns whether it is.
    bool rest(const std::string& entry)
    {
        const bool isMade = m_made.contains(entry);
        const std::optional<SharedCopy::Seen> seen = m_copy.seen(entry);
        if (isMade || entry == names().key(""))
            return false;
        const int64_t created = seen ? seen->created : 0;
        m_compares.emplace(
            entry, engine::Compare{engine::Compare::What::Created, engine::Compare::Is::Equal, entry, {}, created});
        return seen.has_value();
    }
    /// And on what it says.
    void restOnData(const std::string& entry)
    {
        const std::optional<SharedCopy::Seen> seen = m_copy.seen(entry);
        m_compares[entry + '\n'] = {
            engine::Compare::What::Modified, engine::Compare::Is::Equal, entry, {}, seen ? seen->modified : 0};
    }
    /// And on nothing new in a range.
    void restOnRange(const std::string& begin, const std::string& end)
    {
        m_compares[begin + '\n'] = {engine::Compare::What::Modified, engine::Compare::Is::Less, begin, end,
                                    m_revision + 1};
    }

    /// And on a key with all that is below it.
    void restOnTree(const std::string& path)
    {
        const std::string key = names().key(path);
        const std::string values = names().value(path, "");
        const std::string ofKey = values.substr(0, values.size() - 1);
        restOnData(key);
        restOnRange(EntryNames::below(key), EntryNames::belowEnd(key));
        restOnRange(EntryNames::values(ofKey), EntryNames::valuesEnd(ofKey));
        restOnRange(EntryNames::below(ofKey), EntryNames::belowEnd(ofKey));
    }

    engine::Transaction take()
    {
        engine::Transaction transaction;
        for (auto& [entry, compare] : m_compares)
            transaction.compares.push_back(std::move(compare));
        for (auto& [entry, operation] : m_operations)
            transaction.operations.push_back(std::move(operation));
        return transaction;
    }

    const EntryNames& names() const { return m_copy.names(); }

private:
    void set(const std::string& entry, EntryText&& text, bool isKey)
    {
        if (m_operations.contains(entry) && m_operations[entry].kind == engine::Operation::Kind::Delete && isKey)
            throw CannotPropose{OBREG_STATUS_TOO_LARGE,
                                "a key of a shared tree is deleted and made in one transaction"};
        text.place = m_place++;
        m_made.insert(entry);
        m_operations[entry] = {engine::Operation::Kind::Put, entry, isKey ? keyText(text) : valueText(text)};
    }

    void setValue(const Change& change, const std::string& path)
    {
        const std::string entry = names().value(path, change.name);
        const std::optional<Value> now = m_store.value(change.key, change.name);
        if (now)
            set(entry,
                {change.time, change.author.uid, now->type, 0, change.name, std::string(now->pData, now->length)},
                false);
    }

    void removeValue(const std::string& entry)
    {
        if (!m_copy.seen(entry)) { // it was set by what is proposed
            m_operations.erase(entry);
            return;
        }
        rest(entry);
        m_operations[entry] = {engine::Operation::Kind::Delete, entry};
    }

    static std::string parentOf(const std::string& path)
    {
        const size_t end = path.rfind('\\');
        return end == std::string::npos ? "" : path.substr(0, end);
    }

    /// Something in that key was deleted.
    void touch(const Change& change, const std::string& path)
    {
        const std::string key = names().key(path);
        const std::optional<SharedCopy::Seen> seen = m_copy.seen(key);
        if (m_operations.contains(key) || (!seen && !path.empty()))
            return; // made by what is proposed
        rest(key);
        m_operations[key] = {
            engine::Operation::Kind::Put, key,
            keyText(
                {change.time, change.author.uid, 0, seen ? seen->place : 0, path.substr(path.rfind('\\') + 1), {}})};
    }

    /// All below it goes with it, in a range.
    void removeKey(const std::string& path)
    {
        const std::string key = names().key(path);
        const std::string values = names().value(path, "");
        const std::string ofKey = values.substr(0, values.size() - 1);
        const bool isHere = rest(key);
        const auto dropRange = [&](auto& from, const std::string& begin, const std::string& end) {
            from.erase(from.lower_bound(begin), from.lower_bound(end));
        };
        for (const auto& [begin, end] :
             {std::pair(key, EntryNames::valuesEnd(key)), std::pair(EntryNames::below(key), EntryNames::belowEnd(key)),
              std::pair(EntryNames::values(ofKey), EntryNames::valuesEnd(ofKey)),
              std::pair(EntryNames::below(ofKey), EntryNames::belowEnd(ofKey))}) {
            dropRange(m_operations, begin, end);
            if (begin != key)
                dropRange(m_compares, begin, end);
        }
        if (!isHere)
            return; // it was made by what is proposed
        m_operations[key] = {engine::Operation::Kind::Delete, key};
        const auto deleteRange = [this](const std::string& begin, const std::string& end) {
            m_operations[begin] = {engine::Operation::Kind::Delete, begin, {}, end};
        };
        deleteRange(EntryNames::below(key), EntryNames::belowEnd(key));
        deleteRange(EntryNames::values(ofKey), EntryNames::valuesEnd(ofKey));
        deleteRange(EntryNames::below(ofKey), EntryNames::belowEnd(ofKey));
        restOnRange(EntryNames::below(key), EntryNames::belowEnd(key));
    }

    WritableStore& m_store;
    SharedCopy& m_copy;
    const int64_t m_revision;
    uint64_t m_place = 0;
    std::set<std::string> m_made;
    std::map<std::string, engine::Compare> m_compares;     // by entry, and what of it
    std::map<std::string, engine::Operation> m_operations; // by entry
};

} // namespace

std::optional<Proposer::Place> Proposer::placeOf(KeyId key)
{
    std::string path;
    for (KeyId at = key; at != 0;) {
        for (size_t i = 0; i < m_shares.size(); ++i)
            if (m_shares[i]->top() == at)
                return Place{i, std::move(path)};
        const auto place = m_store.placeOf(at);
        if (!place)
            break;
        path.insert(0, path.empty() ? place->name : place->name + '\\');
        at = place->parent;
    }
    return std::nullopt;
}

std::optional<Proposal> Proposer::propose(int64_t after, const std::vector<SharedCalls::LookedAt>& lookedAt)
{
    std::optional<size_t> share;
    std::optional<Collector> collector;
    bool isElsewhere = false;
    std::map<KeyId, std::optional<Place>> places;
    const auto find = [&](KeyId key) -> const std::optional<Place>& {
        const auto [at, isNew] = places.try_emplace(key);
        if (isNew)
            at->second = placeOf(key);
        return at->second;
    };
    const auto isShared = [&](const std::optional<Place>& place) {
        if (!place || (share && *share != place->share))
            return false;
        if (!share)
            collector.emplace(m_store, *m_shares[place->share]);
        share = place->share;
        return true;
    };
    const std::vector<Change> changes = m_store.changesAfter(after);
    for (const Change& change : changes) {
        const std::optional<Place>& place = find(change.key);
        if (isShared(place))
            collector->add(change, place->path);
        else
            isElsewhere = true;
    }
    if (!share)
        return std::nullopt;
    for (const SharedCalls::LookedAt& looked : lookedAt) {
        const std::optional<Place>& place = find(looked.key);
        if (!isShared(place)) {
            isElsewhere = true;
            continue;
        }
        const std::string path =
            place->path.empty() || looked.path.empty() ? place->path + looked.path : place->path + '\\' + looked.path;
        const std::string key = collector->names().key(path);
        collector->rest(key);
        if (looked.value)
            collector->restOnData(collector->names().value(path, *looked.value));
        if (looked.isWholeTree)
            collector->restOnTree(path);
    }
    if (isElsewhere)
        throw CannotPropose{OBREG_STATUS_BAD_TRANSACTION,
                            "a transaction stays in one shared tree, or in what is this machine's own"};
    return Proposal{*share, collector->take()};
}

} // namespace obregd
