#include "daemon/engine/copy.h"

#include <algorithm>

#include "daemon/log.h"
#include "daemon/store/statements.h"

namespace obregd {

namespace {

constexpr size_t EventsOfAPiece = 1000; // of a difference
constexpr const char* Tables =
    "CREATE TABLE IF NOT EXISTS share (name TEXT PRIMARY KEY, revision INTEGER NOT NULL) STRICT;"
    "CREATE TABLE IF NOT EXISTS sharedentry (entry BLOB PRIMARY KEY, created INTEGER NOT NULL, "
    "modified INTEGER NOT NULL, place INTEGER NOT NULL) STRICT, WITHOUT ROWID";

SQLite::Database& withTables(SQLite::Database& database)
{
    database.exec(Tables);
    return database;
}

void bindEntry(SQLite::Statement& statement, int index, const std::string& entry)
{
    statement.bindNoCopy(index, entry.data(), static_cast<int>(entry.size()));
}

} // namespace

SharedCopy::SharedCopy(WritableStore& store, const std::string& share, KeyId top)
    : m_store(store), m_names(share), m_share(share), m_top(top),
      m_revision(withTables(store.database()), "SELECT revision FROM share WHERE name = ?"),
      m_setRevision(store.database(), "REPLACE INTO share (name, revision) VALUES (?, ?)"),
      m_seen(store.database(), "SELECT created, modified, place FROM sharedentry WHERE entry = ?"),
      m_note(store.database(), "REPLACE INTO sharedentry (entry, created, modified, place) VALUES (?, ?, ?, ?)"),
      m_forget(store.database(), "DELETE FROM sharedentry WHERE entry = ?"),
      m_all(store.database(),
            "SELECT entry, created, modified FROM sharedentry WHERE entry >= ? AND entry < ? ORDER BY entry")
{}

int64_t SharedCopy::revision()
{
    const Use use(m_revision);
    bindAll(m_revision, m_share);
    return m_revision.executeStep() ? m_revision.getColumn(0).getInt64() : 0;
}

void SharedCopy::setRevision(int64_t revision) { run(m_setRevision, m_share, revision); }

std::optional<SharedCopy::Seen> SharedCopy::seen(const std::string& entry)
{
    const Use use(m_seen);
    bindEntry(m_seen, 1, entry);
    if (!m_seen.executeStep())
        return std::nullopt;
    const auto at = [this](int column) { return m_seen.getColumn(column).getInt64(); };
    return Seen{at(0), at(1), static_cast<uint64_t>(at(2))};
}

void SharedCopy::apply(const engine::Revision& revision, bool isReadAnew)
{
    for (const engine::Revision::Event& event : revision.events)
        applyOne(event, revision.number, isReadAnew);
}

void SharedCopy::applyOne(const engine::Revision::Event& event, int64_t number, bool isReadAnew)
{
    const engine::Entry& entry = event.entry;
    const EntryNames::Parsed parsed = m_names.parse(entry.key);
    if (parsed.kind != 'k' && parsed.kind != 'v' && parsed.kind != 't')
        return;
    const std::optional<Seen> before = seen(entry.key);
    if (event.isDeletion) {
        if (!before || (before->modified > number && !isReadAnew))
            return;
        remove(parsed);
        const Use use(m_forget);
        bindEntry(m_forget, 1, entry.key);
        m_forget.exec();
        return;
    }
    if (before && before->modified >= entry.modified && !isReadAnew)
        return;
    set(parsed, entry, before);
    const Use use(m_note);
    bindEntry(m_note, 1, entry.key);
    m_note.bind(2, entry.created);
    m_note.bind(3, entry.modified);
    const std::optional<EntryText> text = parseEntry(entry.value);
    m_note.bind(4, static_cast<int64_t>(text ? text->place : 0));
    m_note.exec();
}

void SharedCopy::remove(const EntryNames::Parsed& entry)
{
    if (entry.kind == 't' || (entry.kind == 'k' && entry.path.empty()))
        return;
    const std::optional<KeyId> key = find(entry.path);
    if (!key)
        return; // it went with a key above
    if (entry.kind == 'k')
        removeTree(*key);
    else
        m_store.removeValue(*key, entry.name);
}

void SharedCopy::set(const EntryNames::Parsed& entry, const engine::Entry& told, const std::optional<Seen>& before)
{
    if (entry.kind == 't') {
        const size_t slash = entry.path.find('/');
        const auto uid = static_cast<uid_t>(std::strtoul(entry.path.c_str(), nullptr, 10));
        const std::string token = entry.path.substr(slash + 1);
        if (slash != std::string::npos && !m_store.token(uid, token))
            m_store.addToken(uid, token, std::strtoll(told.value.c_str(), nullptr, 10));
        return;
    }
    const std::optional<EntryText> text = parseEntry(told.value);
    if (!text) {
        logLine(LOG_WARNING, "an entry of the shared tree %s is none of obregd's and is left out", m_share.c_str());
        return;
    }
    const bool isAnother = before && before->created != told.created;
    m_store.setTime(text->time);
    m_store.journal().setAuthor({text->uid, 0});
    if (entry.kind == 'k') {
        if (isAnother)
            remove(entry);
        const size_t last = entry.path.rfind('\\');
        const auto parent = find(last == std::string::npos ? "" : entry.path.substr(0, last));
        if (!parent || entry.path.empty() || m_store.child(*parent, text->name))
            return;
        const Owner owner = *parent == UsersId ? ownerOfUserTree(text->name) : m_store.key(*parent)->owner;
        m_store.addKey(*parent, text->name, owner);
        return;
    }
    const std::optional<KeyId> key = find(entry.path);
    if (!key)
        return;
    if (isAnother)
        m_store.removeValue(*key, text->name);
    m_store.setValue(*key, text->name, text->type, text->data.data(), static_cast<UINT32>(text->data.size()));
}

/// From below, without recursion: a tree may be deeper than a stack.
void SharedCopy::removeTree(KeyId top)
{
    for (KeyId at = top;;) {
        const std::optional<Key> key = m_store.key(at);
        if (!key)
            return;
        if (key->subKeys != 0) {
            const std::optional<SubKeyEntry> first = m_store.subKeyAt(*key, 0);
            if (!first)
                throwDamaged(at, "it has not the sub-key that it counts");
            const std::string name = first->pName;
            at = m_store.child(at, name).value_or(0);
            continue;
        }
        m_store.removeKey(*key);
        if (at == top)
            return;
        at = key->parent;
    }
}

std::optional<KeyId> SharedCopy::find(const std::string& path)
{
    KeyId key = m_top;
    for (size_t begin = 0; begin < path.size();) {
        const size_t end = std::min(path.find('\\', begin), path.size());
        const auto child = m_store.child(key, path.substr(begin, end - begin));
        if (!child)
            return std::nullopt;
        key = *child;
        begin = end + 1;
    }
    return key;
}

std::vector<engine::Revision> SharedCopy::difference(std::vector<engine::Entry>&& entries, int64_t revision)
{
    std::vector<engine::Revision::Event> gone, changed, made;
    auto at = entries.begin();
    const auto takeUpTo = [&](const std::string* pEntry) {
        for (; at != entries.end() && (pEntry == nullptr || at->key < *pEntry); ++at)
            made.push_back({false, std::move(*at)});
    };
    const std::string begin = m_names.begin();
    const std::string end = m_names.end();
    {
        const Use use(m_all);
        bindEntry(m_all, 1, begin);
        bindEntry(m_all, 2, end);
        while (m_all.executeStep()) {
            const std::string entry = m_all.getColumn(0).getString();
            takeUpTo(&entry);
            const bool isThere = at != entries.end() && at->key == entry;
            if (isThere && at->created == m_all.getColumn(1).getInt64()) {
                if (at->modified != m_all.getColumn(2).getInt64())
                    changed.push_back({false, std::move(*at)});
            } else {
                gone.push_back({true, {entry, {}, 0, revision}});
                if (isThere)
                    made.push_back({false, std::move(*at)});
            }
            if (isThere)
                ++at;
        }
    }
    takeUpTo(nullptr);
    const auto place = [](const engine::Revision::Event& event) {
        const std::optional<EntryText> text = parseEntry(event.entry.value);
        return std::pair(event.entry.created, text ? text->place : 0);
    };
    std::sort(made.begin(), made.end(), [&](const auto& a, const auto& b) { return place(a) < place(b); });
    std::vector<engine::Revision> revisions;
    for (std::vector<engine::Revision::Event>* const pEvents : {&gone, &changed, &made})
        for (engine::Revision::Event& event : *pEvents) {
            if (revisions.empty() || revisions.back().events.size() == EventsOfAPiece)
                revisions.push_back({revision, {}});
            revisions.back().events.push_back(std::move(event));
        }
    return revisions;
}

} // namespace obregd
