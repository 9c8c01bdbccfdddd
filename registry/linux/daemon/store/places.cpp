#include "daemon/store/places.h"

#include <algorithm>
#include <vector>

#include "daemon/store/statements.h"

namespace obregd {

namespace {

/// Of a key that is deleted, where it was.
constexpr const char* WhereIs = "SELECT parent, name FROM regkey WHERE id = ?1 "
                                "UNION ALL SELECT parent, name FROM change WHERE key = ?1 AND kind = 2 LIMIT 1";

} // namespace

std::string joined(const std::string& path, const std::string& name)
{
    return path.empty() ? name : path + '\\' + name;
}

Places::Places(SQLite::Database& database) : m_place(database, WhereIs) {}

std::optional<Place> Places::of(KeyId id)
{
    const Use use(m_place);
    bindAll(m_place, id);
    if (!m_place.executeStep())
        return std::nullopt;
    return Place{m_place.getColumn(0).getInt64(), m_place.getColumn(1).getString()};
}

const std::optional<std::string>& Places::pathBelow(KeyId id, Below& known)
{
    std::vector<std::pair<KeyId, std::string>> way; // upwards
    KeyId up = id;
    while (!known.contains(up)) {
        const std::optional<Place> found = of(up);
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
