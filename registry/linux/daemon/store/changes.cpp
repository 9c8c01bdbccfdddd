#include "daemon/store/changes.h"

#include "daemon/store/statements.h"

namespace obregd {

namespace {

constexpr size_t EnoughText = size_t{64} * 1024; // told at once; the rest when it is asked for
constexpr size_t MostText = size_t{64} << 20;    // of what belongs together

constexpr const char* Later =
    "SELECT number, kind, key, parent, name, joined FROM change WHERE number > ? ORDER BY number";

} // namespace

ChangeReader::ChangeReader(SQLite::Database& database)
    : m_journal(database), m_places(database), m_since(database, Later)
{}

Told ChangeReader::told(const Watched& watched, int64_t mostRows)
{
    const int64_t last = m_journal.last();
    Told told{last, watched.since > last || watched.since + 1 < m_journal.first(), {}};
    if (told.lost)
        return told;
    Places::Below known(watched.key);
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
            const std::optional<std::string> above = m_places.pathBelow(in, known);
            if (!above)
                continue;
            path = *above;
        }
        const std::string name = m_since.getColumn(4).getString();
        const std::string keyPath = ofKey && !itself ? joined(path, name) : path;
        told.text += std::to_string(at(0)) + '\t' + ChangeNames[kind] + '\t' + keyPath + '\t' + (ofKey ? "" : name);
        told.text += '\0';
    }
    return told;
}

std::optional<KeyId> ChangeReader::parentOf(KeyId id)
{
    const auto found = m_places.of(id);
    return found ? std::optional(found->parent) : std::nullopt;
}

} // namespace obregd
