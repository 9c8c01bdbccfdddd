#include "rehearsal.h"

#include <algorithm>

#include "condition.h"
#include "errors.h"
#include "writequeue.h"

namespace obregtool {

namespace {

/// Gives failures the line of their statement.
template <class Step>
void at(const Place& place, const Step& step)
{
    try {
        step();
    } catch (const Failure& failure) {
        if (place.line == 0)
            throw;
        throw WriteFailure(failure, place.line);
    }
}

bool isName(std::string_view name, size_t longest)
{
    return name.size() <= longest && std::none_of(name.begin(), name.end(), isControl);
}

void mustHold(const Place& place, const KeyPath& key, const std::string* pValueName, const std::string& why)
{
    if (!why.empty())
        at(place, [&] { throw conditionFailure(key, pValueName, why); });
}

void checkNames(const KeyPath& key)
{
    std::string_view rest = key.path;
    size_t count = 0;
    bool good = true;
    while (good && !rest.empty()) {
        const size_t end = std::min(rest.find('\\'), rest.size());
        good = end != 0 && isName(rest.substr(0, end), OBREG_MAX_KEY_NAME) && ++count <= OBREG_MAX_PATH_KEYS;
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    if (!good)
        check(obreg::Status::badName, key);
}

} // namespace

void Rehearsal::key(const KeyPath& key, const Place& place)
{
    at(place, [&] {
        checkNames(key);
        if (!key.isRoot()) // a root need not be made: only its values are refused
            m_probe.requireWritable(key);
    });
    m_key = key;
}

void Rehearsal::removeKey(const KeyPath& key, const Place& place)
{
    at(place, [&] {
        checkNames(key);
        if (m_probe.exists(key))
            m_probe.requireWritable(key);
        else if (m_missing == Missing::Fails)
            check(obreg::Status::notFound, key);
    });
}

void Rehearsal::value(std::string&& name, obreg::Value&& value, const Place& place)
{
    at(place, [&] {
        checkValue(name);
        if (value.data.empty())
            check(obreg::Status::invalidParameter, m_key, &name);
        checkLength(name, value);
    });
}

void Rehearsal::removeValue(std::string&& name, const Place& place)
{
    at(place, [&] {
        checkValue(name);
        if (m_missing == Missing::Passes)
            return;
        std::error_code error;
        openKey(m_key).get<obreg::Value>(name, error);
        check(error, m_key, &name);
    });
}

void Rehearsal::requireKey(const KeyPath& key, const Place& place)
{
    m_key = key;
    mustHold(place, key, nullptr, whyNoKey(key));
}

void Rehearsal::requireNoKey(const KeyPath& key, const Place& place) { mustHold(place, key, nullptr, whyKey(key)); }

void Rehearsal::requireValue(std::string&& name, obreg::Value&& value, const Place& place)
{
    mustHold(place, m_key, &name, whyNotEqual(m_key, name, value));
}

void Rehearsal::requireNoValue(std::string&& name, const Place& place)
{
    mustHold(place, m_key, &name, whyNotAbsent(m_key, name));
}

void Rehearsal::requireUnchanged(uint64_t since, const Place& place)
{
    mustHold(place, m_key, nullptr, whyChanged(m_key, since));
}

void Rehearsal::checkValue(const std::string& name)
{
    if (!isName(name, OBREG_MAX_VALUE_NAME))
        check(obreg::Status::badName, m_key, &name);
    if (m_key.isRoot())
        m_probe.requireWritable(m_key);
}

void Rehearsal::checkLength(const std::string& name, const obreg::Value& value)
{
    const size_t length = name.size() + value.data.size();
    if (length <= m_taken)
        return;
    const obreg::Key figures = obreg::Key::root(HKEY_PERFORMANCE_DATA);
    std::error_code error;
    obreg::Key::open(figures, "", KEY_ALL_ACCESS, error);
    if (error == obreg::Status::accessDenied) // or it might be stored there
        figures.set(name, value, error);
    if (error != obreg::Status::accessDenied)
        check(error, m_key, &name, value.data.size());
    m_taken = length;
}

} // namespace obregtool
