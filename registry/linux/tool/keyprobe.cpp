#include "keyprobe.h"

#include <unistd.h>

#include "errors.h"

namespace obregtool {

namespace {

constexpr size_t MostRemembered = 100000;

/// The key where the tree begins whose owner may write: a root, or below the users' root a key for each. Where it is
/// the caller's own, the root under which it is always there.
KeyPath topOfTree(const KeyPath& key)
{
    if (key.root != HKEY_USERS || key.isRoot())
        return {key.root, ""};
    const std::string user = key.path.substr(0, key.path.find('\\'));
    return user == std::to_string(geteuid()) ? KeyPath{HKEY_CURRENT_USER, ""} : KeyPath{HKEY_USERS, user};
}

} // namespace

obreg::Key KeyProbe::open(const KeyPath& key)
{
    const std::string identity = key.identity();
    const auto known = m_exists.find(identity);
    const auto above = m_exists.find(key.parent().identity());
    const bool missing = (known != m_exists.end() && !known->second) || (above != m_exists.end() && !above->second);
    obreg::Key opened;
    if (!missing) {
        std::error_code error;
        opened = openKey(key, KEY_READ, error);
        if (error != obreg::Status::notFound)
            check(error, key);
    }
    if (m_exists.size() >= MostRemembered)
        m_exists.clear();
    m_exists[identity] = static_cast<bool>(opened);
    return opened;
}

bool KeyProbe::exists(const KeyPath& key)
{
    const auto known = m_exists.find(key.identity());
    return known != m_exists.end() ? known->second : static_cast<bool>(open(key));
}

std::optional<KeyPath> KeyProbe::uppermostMissing(const KeyPath& key)
{
    if (exists(key))
        return std::nullopt;
    KeyPath missing = key;
    while (!exists(missing.parent())) // a root is always there
        missing = missing.parent();
    return missing;
}

void KeyProbe::requireWritable(const KeyPath& key)
{
    const KeyPath top = topOfTree(key);
    const auto [place, isNew] = m_refusal.try_emplace(top.identity());
    std::error_code& refusal = place->second;
    const auto ask = [&refusal](const KeyPath& asked) {
        obreg::Key::open(obreg::Key::root(asked.root), asked.path, KEY_ALL_ACCESS, refusal);
    };
    if (isNew)
        ask(top);
    if (refusal == obreg::Status::notFound)
        ask(top.parent());
    check(refusal, key);
}

} // namespace obregtool
