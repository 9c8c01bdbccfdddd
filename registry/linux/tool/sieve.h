// What of a file's statements reaches a sink that looks at them before they are carried out.
//
// A value without bytes, which cannot be stored, does not. Where an import is to go on, neither does a statement that
// the sink refuses, nor what stands under a key that it refuses. What was left out once is left out of every later
// look.
//
// Owned and called by one thread.
#ifndef OBREG_TOOL_SIEVE_H
#define OBREG_TOOL_SIEVE_H

#include <optional>
#include <string>
#include <unordered_set>

#include "output.h"
#include "regtext/regreader.h"

namespace obregtool {

class Sieve : public RegSink {
public:
    /// `pTell`: told of what is left out; may be null.
    Sieve(std::string file, bool goesOn, Output* pTell) : m_file(std::move(file)), m_goesOn(goesOn), m_pTell(pTell) {}

    /// The statements that follow are those of the whole file, for this sink.
    void lookWith(RegSink& sink);

    /// Each throws what the sink throws, unless the import is to go on and there is a daemon; and when Ctrl-C came.
    void key(const KeyPath& key, const Place& place) override;
    void removeKey(const KeyPath& key, const Place& place) override;
    void value(std::string&& name, obreg::Value&& value, const Place& place) override;
    void removeValue(std::string&& name, const Place& place) override;

    uint64_t leftOut() const { return m_leftOut.size(); }

private:
    template <class Step>
    std::optional<Failure> pass(const Place& place, const Step& step);
    void leaveOut(const Failure& failure, const Place& place);

    const std::string m_file;
    const bool m_goesOn;
    Output* const m_pTell;
    RegSink* m_pSink = nullptr;
    KeyPath m_key;
    std::optional<Failure> m_keyRefusal;
    std::unordered_set<uint64_t> m_leftOut; // lines
};

} // namespace obregtool

#endif
