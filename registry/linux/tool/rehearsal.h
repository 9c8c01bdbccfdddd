// What the daemon would refuse of changes, found before the first of them is made.
//
// A rehearsal gets the changes in their order and throws, for the first that would be refused, the failure that the
// refusal would be. What is fixed it knows: the limits of names in <obreg/roots.h>, and that no value is empty. The
// rest it asks the daemon: for rights and keys through a KeyProbe, and for the longest data by offering each value that
// is longer than those before to the root of figures, which refuses every value and ends the connection of one that it
// does not take. Nothing is written. Quotas, a full disk and what others change meanwhile show only in the writing.
//
// Owned and called by one thread.
#ifndef OBREG_TOOL_REHEARSAL_H
#define OBREG_TOOL_REHEARSAL_H

#include "keyprobe.h"
#include "regtext/regreader.h"

namespace obregtool {

class Rehearsal : public RegSink {
public:
    enum class Missing { Passes, Fails }; ///< the deletion of what is not there

    explicit Rehearsal(Missing missing) : m_missing(missing) {}

    /// Each throws a Failure; one with its line, a WriteFailure, when the place has one.
    void key(const KeyPath& key, const Place& place) override;
    void removeKey(const KeyPath& key, const Place& place) override;
    void value(std::string&& name, obreg::Value&& value, const Place& place) override;
    void removeValue(std::string&& name, const Place& place) override;
    void requireKey(const KeyPath& key, const Place& place) override;
    void requireNoKey(const KeyPath& key, const Place& place) override;
    void requireValue(std::string&& name, obreg::Value&& value, const Place& place) override;
    void requireNoValue(std::string&& name, const Place& place) override;
    void requireUnchanged(uint64_t since, const Place& place) override;

    KeyProbe& probe() { return m_probe; }

private:
    void checkValue(const std::string& name);
    void checkLength(const std::string& name, const obreg::Value& value);

    const Missing m_missing;
    KeyProbe m_probe;
    KeyPath m_key;
    size_t m_taken = 512; // bytes of a name and its data that the daemon takes; at least, it takes that much
};

} // namespace obregtool

#endif
