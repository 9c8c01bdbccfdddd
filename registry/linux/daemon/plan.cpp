#include "daemon/plan.h"

#include <algorithm>
#include <utility>

#include "obreg/roots.h"

namespace obregd {

namespace {

constexpr size_t StepBytes = sizeof(Step) + 64; // what its strings take beside their bytes, about

/// The statements of a text, as many as there may be.
class Steps final : public regtext::RegSink {
public:
    explicit Steps(size_t most) : m_most(most) {}

    using Key = regtext::KeyPath;
    using Place = regtext::Place;
    void key(const Key& key, const Place& place) override { add(Step::MakeKey, key, place); }
    void removeKey(const Key& key, const Place& place) override { add(Step::RemoveKey, key, place); }
    void requireKey(const Key& key, const Place& place) override { add(Step::RequireKey, key, place); }
    void requireNoKey(const Key& key, const Place& place) override { add(Step::RequireNoKey, key, place); }
    void value(std::string&& name, obreg::Value&& value, const Place& place) override
    {
        add({Step::SetValue, place, nullptr, std::move(name), std::move(value)});
    }
    void removeValue(std::string&& name, const Place& place) override
    {
        add({Step::RemoveValue, place, nullptr, std::move(name)});
    }
    void requireValue(std::string&& name, obreg::Value&& value, const Place& place) override
    {
        add({Step::RequireValue, place, nullptr, std::move(name), std::move(value)});
    }
    void requireNoValue(std::string&& name, const Place& place) override
    {
        add({Step::RequireNoValue, place, nullptr, std::move(name)});
    }
    void requireUnchanged(uint64_t since, const Place& place) override
    {
        add({Step::RequireUnchanged, place, nullptr, {}, {}, since});
    }

    std::vector<Step> steps;

private:
    void add(Step::Kind kind, const Key& key, const Place& place)
    {
        m_names += 1 + static_cast<size_t>(std::count(key.path.begin(), key.path.end(), '\\'));
        if (m_names > m_most * NamesPerStatement)
            throw Refused{OBREG_STATUS_TOO_LARGE, place,
                          "the paths of a transaction's keys have at most " +
                              std::to_string(m_most * NamesPerStatement) + " names together"};
        add({kind, place, key.root, key.path});
    }
    void add(Step&& step)
    {
        if (steps.size() == m_most)
            throw Refused{OBREG_STATUS_TOO_LARGE, step.place,
                          "a transaction has at most " + std::to_string(m_most) + " statements"};
        steps.push_back(std::move(step));
    }

    const size_t m_most;
    size_t m_names = 0; // in the paths of keys
};

/// Whether the steps take away and add nothing: no value is set, and no key is named for its own sake.
bool takesAwayOnly(const std::vector<Step>& steps)
{
    for (size_t i = 0; i < steps.size(); ++i) {
        const bool isBare = i + 1 == steps.size() || steps[i + 1].kind != Step::RemoveValue;
        if (steps[i].kind == Step::SetValue || (steps[i].kind == Step::MakeKey && isBare))
            return false;
    }
    return true;
}

} // namespace

int64_t hashOf(std::string_view text)
{
    // FNV-1a; the length and a last mixing make up for texts that end alike.
    uint64_t hash = 0xCBF29CE484222325;
    for (const char c : text)
        hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001B3;
    hash ^= text.size();
    hash = (hash ^ hash >> 33) * 0xFF51AFD7ED558CCD;
    hash = (hash ^ hash >> 33) * 0xC4CEB9FE1A85EC53;
    return static_cast<int64_t>(hash ^ hash >> 33);
}

std::vector<Step> readSteps(std::string_view text, size_t mostSteps)
{
    Steps sink(mostSteps);
    try {
        regtext::RegReader reader(sink, false, regtext::RegKind::Transaction);
        reader.feed(text);
        reader.finish();
    } catch (const regtext::RegSyntaxError& error) {
        throw Refused{OBREG_STATUS_BAD_TRANSACTION, error.place, error.complaint};
    }
    return std::move(sink.steps);
}

Plan makePlan(const std::string& token, std::string_view text, size_t mostSteps)
{
    if (text.size() > mostSteps * BytesPerStatement)
        throw Refused{OBREG_STATUS_TOO_LARGE,
                      {},
                      "a transaction has at most " + std::to_string(mostSteps * BytesPerStatement) + " bytes"};
    Plan plan{token, hashOf(text), readSteps(text, mostSteps), mostSteps};
    plan.frees = takesAwayOnly(plan.steps);
    for (const Step& step : plan.steps)
        plan.bytes += StepBytes + step.name.size() + step.value.data.size();
    return plan;
}

std::string subjectOf(const Step& key, const Step* pValue)
{
    const std::string path = regtext::KeyPath{key.root, key.name}.text();
    return pValue == nullptr ? path : path + ", value \"" + pValue->name + '"';
}

} // namespace obregd
