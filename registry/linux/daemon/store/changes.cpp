#include "daemon/store/changes.h"

#include <algorithm>
#include <vector>

#include "daemon/store/statements.h"

namespace obregd {

namespace {

constexpr size_t MaxLevels = 1024;               // more than any path has: no circle
constexpr size_t EnoughText = size_t{64} * 1024; // told at once; the rest when it is asked for
constexpr size_t MostText = size_t{64} << 20;    // of what belongs together
constexpr const char* Kinds[] = {"", "key-made", "key-deleted", "value-set", "value-deleted"};

constexpr const char* Since =
    "SELECT number, kind, key, parent, name, joined FROM change WHERE number > ? ORDER BY number";
/// Of a key that is deleted, where it was.
constexpr const char* WhereIs = "SELECT parent, name FROM regkey WHERE id = ?1 "
                                "UNION ALL SELECT parent, name FROM change WHERE key = ?1 AND kind = 2 LIMIT 1";

std::string joined(const std::string& path, const std::string& name)
{
    return path.empty() ? name : path + '\\' + name;
}

} // namespace

ChangeReader::ChangeReader(SQLite::Database& database)
    : m_journal(database), m_since(database, Since), m_place(database, WhereIs)
{}

Told ChangeReader::told(const Watched& watched, int64_t mostRows)
{
    const int64_t last = m_journal.last();
    Told told{last, watched.since > last || watched.since + 1 < m_journal.first(), {}};
    if (told.lost)
        return told;
    Below known{{watched.key, std::string()}};
    const Use use(m_since);
    bindAll(m_since, watched.since);
    for (int64_t rows = 0; m_since.executeStep(); ++rows) {
        if (rows > mostRows)
            throw TooLong();
        const auto at = [this](int column) { return m_since.getColumn(column).getInt64(); };
        if (told.text.size() > (m_since.isColumnNull(5) ? EnoughText : MostText)) {
            told.upTo = at(0) - 1;
            break;
        }
        const int64_t kind = at(1);
        const bool ofKey =
            kind == static_cast<int64_t>(ChangeKind::KeyMade) || kind == static_cast<int64_t>(ChangeKind::KeyDeleted);
        const bool itself = ofKey && at(2) == watched.key;
        const KeyId in = ofKey ? at(3) : at(2);
        if (!itself && in != watched.key && !watched.subTree)
            continue;
        std::string path;
        if (!itself) {
            const std::optional<std::string>& above = pathBelow(in, known);
            if (!above)
                continue;
            path = *above;
        }
        const std::string name = m_since.getColumn(4).getString();
        const std::string keyPath = ofKey && !itself ? joined(path, name) : path;
        told.text += std::to_string(at(0)) + '\t' + Kinds[kind] + '\t' + keyPath + '\t' + (ofKey ? "" : name);
        told.text += '\0';
    }
    return told;
}

std::optional<KeyId> ChangeReader::parentOf(KeyId id)
{
    const auto found = place(id);
    return found ? std::optional(found->parent) : std::nullopt;
}

std::optional<ChangeReader::Place> ChangeReader::place(KeyId id)
{
    const Use use(m_place);
    bindAll(m_place, id);
    if (!m_place.executeStep())
        return std::nullopt;
    return Place{m_place.getColumn(0).getInt64(), m_place.getColumn(1).getString()};
}

/// The path to a key from one whose path is known; nothing when it is below none.
const std::optional<std::string>& ChangeReader::pathBelow(KeyId id, Below& known)
{
    std::vector<std::pair<KeyId, std::string>> way; // upwards
    KeyId up = id;
    while (!known.contains(up)) {
        const std::optional<Place> found = place(up);
        way.emplace_back(up, found ? found->name : "");
        if (!found || way.size() > MaxLevels) {
            for (const auto& [key, name] : way)
                known.emplace(key, std::nullopt);
            return known.at(id);
        }
        up = found->parent;
    }
    std::reverse(way.begin(), way.end());
    for (const auto& [key, name] : way) {
        const std::optional<std::string>& above = known.at(up);
        known.emplace(key, above ? std::optional(joined(*above, name)) : std::nullopt);
        up = key;
    }
    return known.at(id);
}

} // namespace obregd
