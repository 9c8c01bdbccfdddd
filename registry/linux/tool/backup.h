// A .reg file of what changes are about to replace: importing it brings that back.
//
// A backup gets the changes before they are made. It writes the old data of each value that they store or delete, each
// key that they delete with all below it, and a deletion for what is not there yet. All of that is as it was before the
// first change, so whatever the changes touch twice is brought back as well. What others change meanwhile is not in it.
//
// Owned and called by one thread.
#ifndef OBREG_TOOL_BACKUP_H
#define OBREG_TOOL_BACKUP_H

#include <string>
#include <unordered_set>

#include "files.h"
#include "keyprobe.h"
#include "regtext/regreader.h"
#include "regtext/regwriter.h"

namespace obregtool {

class Backup : public RegSink {
public:
    /// The file must not exist, unless it may be replaced. Throws Failure, as all do; also when Ctrl-C came.
    Backup(const std::string& file, bool replace);

    void key(const KeyPath& key, const Place& place) override;
    void removeKey(const KeyPath& key, const Place& place) override;
    void value(std::string&& name, obreg::Value&& value, const Place& place) override;
    void removeValue(std::string&& name, const Place& place) override;

    /// The file is complete and on the disk when this returns; without it there is none.
    void commit();

private:
    void saveValue(const std::string& name);

    NewFile m_file;
    RegWriter m_writer;
    KeyProbe m_probe;
    std::unordered_set<std::string> m_missing; // identities, of the uppermost ones
    KeyPath m_path;
    obreg::Key m_key;     // empty when it is missing
    bool m_named = false; // whether the text has the key
};

} // namespace obregtool

#endif
