#include "daemon/store/places.h"

#include <algorithm>
#include <vector>

#include "daemon/store/statements.h"

namespace obregd {

namespace {

constexpr size_t MostBytes = size_t{8} << 20; // of places that are remembered for one answer
constexpr size_t PlaceBytes = 64;             // of one, beside its name, about
constexpr size_t MostKnown = 65536;           // depths

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

std::optional<std::string> Places::pathBelow(KeyId id, Below& known)
{
    if (known.bytes > MostBytes) {
        known.places.clear();
        known.bytes = 0;
    }
    std::vector<KeyId> way; // upwards
    for (KeyId up = id; up != known.top;) {
        auto found = known.places.find(up);
        if (found == known.places.end()) {
            found = known.places.emplace(up, of(up)).first;
            known.bytes += PlaceBytes + (found->second ? found->second->name.size() : 0);
        }
        way.push_back(up);
        const std::optional<Place>& place = found->second;
        if (!place || place->parent == 0 || way.size() > MaxLevels) {
            for (const KeyId key : way)
                known.places.at(key).reset();
            return std::nullopt;
        }
        known.looked += PlaceBytes + place->name.size();
        up = place->parent;
    }
    std::string path;
    std::reverse(way.begin(), way.end());
    for (const KeyId key : way) {
        if (!path.empty())
            path += '\\';
        path += known.places.at(key)->name;
    }
    return path;
}

Depth Depths::of(KeyId id)
{
    std::vector<std::pair<KeyId, size_t>> way; // upwards
    Depth depth;
    KeyId up = id;
    for (;;) {
        if (const auto known = m_known.find(up); known != m_known.end()) {
            depth = known->second;
            break;
        }
        const std::optional<Place> place = m_places.of(up);
        if (!place || place->parent == 0 || way.size() > MaxLevels)
            break;
        way.emplace_back(up, place->name.size() + 1);
        up = place->parent;
    }
    if (m_known.size() + way.size() > MostKnown)
        m_known.clear();
    std::reverse(way.begin(), way.end());
    for (const auto& [key, bytes] : way) {
        depth = {depth.keys + 1, depth.bytes + bytes};
        m_known.emplace(key, depth);
    }
    return depth;
}

} // namespace obregd
