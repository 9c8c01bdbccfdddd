#include "preview.h"

#include "changes.h"
#include "condition.h"
#include "errors.h"
#include "readtree.h"

namespace obregtool {

namespace {

std::string stateOf(const KeyPath& key) { return key.identity() + '\\'; }

std::string stateOf(const KeyPath& key, const std::string& valueName)
{
    return stateOf(key) + '\n' + (isUnnamed(valueName) ? "" : folded(valueName));
}

uint64_t countKeys(const KeyPath& key)
{
    uint64_t count = 0;
    walk(
        key, true, [&count](const KeyPath&, const obreg::Key&, KeyContent&, size_t) { ++count; }, Read::SubKeys);
    return count;
}

} // namespace

void Preview::key(const KeyPath& key, const Place& place)
{
    m_rehearsal.key(key, place);
    m_key = key;
    m_stored = changed(key) == nullptr ? m_rehearsal.probe().open(key) : obreg::Key();
    make(key);
}

void Preview::make(const KeyPath& key)
{
    if (exists(key))
        return;
    make(key.parent());
    m_states[stateOf(key)] = {true, std::nullopt};
    found(keyChange(Change::Added, key));
}

void Preview::removeKey(const KeyPath& key, const Place& place)
{
    m_rehearsal.removeKey(key, place);
    if (!exists(key))
        return;
    Fact fact = keyChange(Change::Removed, key);
    if (changed(key) == nullptr) {
        const Field keys{"keys", countKeys(key)};
        fact.fields.push_back(keys);
    }
    const std::string state = stateOf(key);
    const auto inIt = [&state](const auto& one) { return one.first.compare(0, state.size(), state) == 0; };
    for (auto one = m_states.lower_bound(state); one != m_states.end() && inIt(*one);)
        one = m_states.erase(one);
    m_states[state] = {false, std::nullopt};
    found(fact);
}

void Preview::value(std::string&& name, obreg::Value&& value, const Place& place)
{
    m_rehearsal.value(std::string(name), obreg::Value(value), place);
    const std::optional<obreg::Value> old = valueNow(name);
    if (!old)
        found(valueChange(Change::Added, m_key, {name, value}));
    else if (*old != value)
        found(valueChange(m_key, {name, *old}, {name, value}));
    m_states[stateOf(m_key, name)] = {true, std::move(value)};
}

void Preview::removeValue(std::string&& name, const Place& place)
{
    m_rehearsal.removeValue(std::string(name), place);
    if (const std::optional<obreg::Value> old = valueNow(name))
        found(valueChange(Change::Removed, m_key, {name, *old}));
    m_states[stateOf(m_key, name)] = {false, std::nullopt};
}

void Preview::requireKey(const KeyPath& key, const Place& /*place*/)
{
    m_key = key;
    judged(key, nullptr, whyNoKey(key));
}

void Preview::requireNoKey(const KeyPath& key, const Place& /*place*/) { judged(key, nullptr, whyKey(key)); }

void Preview::requireValue(std::string&& name, obreg::Value&& value, const Place& /*place*/)
{
    judged(m_key, &name, whyNotEqual(m_key, name, value));
}

void Preview::requireNoValue(std::string&& name, const Place& /*place*/)
{
    judged(m_key, &name, whyNotAbsent(m_key, name));
}

void Preview::requireUnchanged(uint64_t since, const Place& /*place*/)
{
    judged(m_key, nullptr, whyChanged(m_key, since));
}

void Preview::judged(const KeyPath& key, const std::string* pValueName, const std::string& why)
{
    Fact fact = keyFact(key, why.empty() ? "condition-holds" : "condition-fails");
    fact.lead = why.empty() ? "= " : "! ";
    fact.leadStyle = why.empty() ? Style::Good : Style::Bad;
    const Field name{"name", pValueName != nullptr ? shownName(*pValueName) : "", Style::Name};
    const Field because{"because", why};
    if (pValueName != nullptr)
        fact.fields.push_back(name);
    if (!why.empty())
        fact.fields.push_back(because);
    m_failedConditions += why.empty() ? 0 : 1;
    m_output.fact(fact);
}

void Preview::finish() { m_output.summary({"dry-run", {{"changes", m_changes}}, "nothing was written; changes: "}); }

void Preview::found(const Fact& fact)
{
    ++m_changes;
    m_output.fact(fact);
}

/// What is known of a key from the changes: its own state, or that of the nearest key above it that has one.
const Preview::State* Preview::changed(const KeyPath& key) const
{
    const auto own = m_states.find(stateOf(key));
    if (own != m_states.end())
        return &own->second;
    static const State gone{false, std::nullopt};
    for (KeyPath above = key; !above.isRoot();) {
        above = above.parent();
        if (m_states.count(stateOf(above)) != 0)
            return &gone; // made or deleted, and this one not made since
    }
    return nullptr;
}

bool Preview::exists(const KeyPath& key)
{
    const State* const pState = changed(key);
    return pState != nullptr ? pState->exists : m_rehearsal.probe().exists(key);
}

std::optional<obreg::Value> Preview::valueNow(const std::string& name)
{
    if (const auto known = m_states.find(stateOf(m_key, name)); known != m_states.end())
        return known->second.value;
    if (!m_stored)
        return std::nullopt;
    return findValue(m_stored, m_key, name);
}

} // namespace obregtool
