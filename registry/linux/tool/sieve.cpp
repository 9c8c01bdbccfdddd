#include "sieve.h"

#include "alarm.h"
#include "importer.h"

namespace obregtool {

void Sieve::lookWith(RegSink& sink)
{
    m_pSink = &sink;
    m_keyRefusal.reset();
}

void Sieve::key(const KeyPath& key, const Place& place)
{
    m_key = key;
    m_keyRefusal.reset();
    m_keyRefusal = pass(place, [&] { m_pSink->key(key, place); });
}

void Sieve::removeKey(const KeyPath& key, const Place& place)
{
    m_keyRefusal.reset();
    pass(place, [&] { m_pSink->removeKey(key, place); });
}

void Sieve::value(std::string&& name, obreg::Value&& value, const Place& place)
{
    if (!m_keyRefusal && value.data.empty())
        leaveOut(noBytes(subjectText(m_key, &name)), place);
    else
        pass(place, [&] { m_pSink->value(std::move(name), std::move(value), place); });
}

void Sieve::removeValue(std::string&& name, const Place& place)
{
    pass(place, [&] { m_pSink->removeValue(std::move(name), place); });
}

/// Returns the refusal because of which the statement is left out, if it is for the first time.
template <class Step>
std::optional<Failure> Sieve::pass(const Place& place, const Step& step)
{
    endIfInterrupted();
    if (m_leftOut.count(place.line) != 0)
        return std::nullopt;
    try {
        if (m_keyRefusal)
            throw Failure(*m_keyRefusal);
        step();
        return std::nullopt;
    } catch (const Failure& failure) {
        if (!m_goesOn || failure.exit == ExitNoDaemon)
            throw;
        leaveOut(failure, place);
        return failure;
    }
}

void Sieve::leaveOut(const Failure& failure, const Place& place)
{
    const bool isNew = m_leftOut.insert(place.line).second;
    if (isNew && m_pTell != nullptr)
        m_pTell->problem(inLine(failure, m_file, place.line));
}

} // namespace obregtool
