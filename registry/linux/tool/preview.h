// What changes would make of the registry, as facts like those of compare, and whether their conditions hold: for
// --dry-run.
//
// A preview gets the changes in their order, has each rehearsed, and gives a fact for each that makes a difference. It
// remembers what was changed so far, so that later changes are compared with what earlier ones would leave; what it
// holds grows with them. Nothing is written. Owned and called by one thread.
#ifndef OBREG_TOOL_PREVIEW_H
#define OBREG_TOOL_PREVIEW_H

#include <map>
#include <optional>
#include <string>

#include "output.h"
#include "rehearsal.h"

namespace obregtool {

class Preview : public RegSink {
public:
    Preview(Rehearsal& rehearsal, Output& output) : m_rehearsal(rehearsal), m_output(output) {}

    void key(const KeyPath& key, const Place& place) override;
    void removeKey(const KeyPath& key, const Place& place) override;
    void value(std::string&& name, obreg::Value&& value, const Place& place) override;
    void removeValue(std::string&& name, const Place& place) override;
    void requireKey(const KeyPath& key, const Place& place) override;
    void requireNoKey(const KeyPath& key, const Place& place) override;
    void requireValue(std::string&& name, obreg::Value&& value, const Place& place) override;
    void requireNoValue(std::string&& name, const Place& place) override;
    void requireUnchanged(uint64_t since, const Place& place) override;

    /// Says on a terminal how much it was.
    void finish();
    uint64_t failedConditions() const { return m_failedConditions; }

private:
    /// A key or value after the changes so far. What is below a key of which this is known is known as well.
    struct State {
        bool exists;
        std::optional<obreg::Value> value;
    };

    void found(const Fact& fact);
    void judged(const KeyPath& key, const std::string* pValueName, const std::string& why);
    const State* changed(const KeyPath& key) const;
    bool exists(const KeyPath& key);
    void make(const KeyPath& key);
    std::optional<obreg::Value> valueNow(const std::string& name);

    Rehearsal& m_rehearsal;
    Output& m_output;
    KeyPath m_key;
    obreg::Key m_stored; // the same as it is stored; empty when nothing of that counts
    /// By identity, each key's with a backslash at its end, so that what is in a key comes behind it.
    std::map<std::string, State> m_states;
    uint64_t m_changes = 0;
    uint64_t m_failedConditions = 0;
};

} // namespace obregtool

#endif
