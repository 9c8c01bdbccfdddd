// Carries out the statements of .reg text, and says what was done when not all of them were. One thread.
#ifndef OBREG_TOOL_IMPORTER_H
#define OBREG_TOOL_IMPORTER_H

#include <memory>
#include <string>

#include "output.h"
#include "regtext/regreader.h"
#include "writequeue.h"

namespace obregtool {

/// The failure with its place in a file, and what to do then.
Failure inFile(const Failure& failure, const std::string& place, const std::string& advice);
Failure inLine(const Failure& failure, const std::string& file, uint64_t line);

/// What is said of a value without bytes.
Failure noBytes(const std::string& subject);

/// Its statements are carried out in any order that leaves what the file's order leaves. A value without bytes, which
/// cannot be stored, is told and passed over.
class Importer : public RegSink {
public:
    /// `total`: how many statements there are. `atRefusal`: what becomes of the others when one is refused.
    Importer(std::string file, uint64_t total, WriteQueue::AtRefusal atRefusal, Output& output)
        : m_file(std::move(file)), m_total(total), m_output(output), m_goesOn(atRefusal == WriteQueue::GoOn),
          m_queue(atRefusal), m_progress("imported", total)
    {}

    void key(const KeyPath& key, const Place& place) override;
    void removeKey(const KeyPath& key, const Place& place) override;
    void value(std::string&& name, obreg::Value&& value, const Place& place) override;
    void removeValue(std::string&& name, const Place& place) override;

    /// Waits until all is done. Throws what the statements throw.
    void finish();
    /// Ends it early. Returns the failure that says how far it came: `why`, or that of a write which was refused.
    Failure end(const Failure& why);

    uint64_t refused() const { return m_refused; }

private:
    uint64_t done() const { return m_queue.done() + m_removedKeys; }
    void tell(const Failure& failure, uint64_t line);
    void tellRefused();
    Failure stopped(const WriteFailure& failure) const;
    Failure ended(const Failure& failure) const;
    void addFigures(Failure& failure, uint64_t line) const;
    std::string countText() const;

    const std::string m_file;
    const uint64_t m_total;
    Output& m_output;
    const bool m_goesOn;
    WriteQueue m_queue;
    std::shared_ptr<Target> m_pTarget;
    uint64_t m_removedKeys = 0;
    uint64_t m_lastRemoval = 0; // its line
    uint64_t m_refused = 0;
    Progress m_progress;
};

} // namespace obregtool

#endif
