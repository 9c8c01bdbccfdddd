// The local copy of one shared tree: what the engine tells is applied to the store, and it is kept of each entry in
// which revisions it was created and last changed.
//
// Applying is safe to repeat: what is older than what is there is passed over. The tables are made when the first tree
// is shared. Belongs to the thread that writes, and works inside the transaction that is open.
#ifndef OBREGD_ENGINE_COPY_H
#define OBREGD_ENGINE_COPY_H

#include <unordered_map>
#include <vector>

#include "daemon/engine/engine.h"
#include "daemon/engine/entries.h"
#include "daemon/store/store.h"

namespace obregd {

class SharedCopy {
public:
    /// `top` is the key that is shared. The store outlives it. Throws what SQLite does.
    SharedCopy(WritableStore& store, const std::string& share, KeyId top);

    const EntryNames& names() const { return m_names; }
    KeyId top() const { return m_top; }

    /// All changes up to that revision are here, and what it was a copy of; 0: nothing was ever copied.
    int64_t revision();
    void setRevision(int64_t revision);

    /// The revisions of an entry that is here.
    struct Seen {
        int64_t created, modified;
        uint64_t place; ///< see entries.h
    };
    std::optional<Seen> seen(const std::string& entry);

    /// Applies what changed. Of what was read anew that is so whatever the numbers say: the engine may be another one.
    void apply(const engine::Revision& revision, bool isReadAnew = false);

    /// What makes the copy equal to entries that were read at a revision, in order of key: revisions to be applied,
    /// each of a bounded size.
    std::vector<engine::Revision> difference(std::vector<engine::Entry>&& entries, int64_t revision);

private:
    void applyOne(const engine::Revision::Event& event, int64_t number, bool isReadAnew);
    void remove(const EntryNames::Parsed& entry);
    void set(const EntryNames::Parsed& entry, const engine::Entry& told, const std::optional<Seen>& before);
    void removeTree(KeyId top);
    std::optional<KeyId> find(const std::string& path);

    WritableStore& m_store;
    const EntryNames m_names;
    const std::string m_share;
    const KeyId m_top;
    SQLite::Statement m_revision, m_setRevision, m_seen, m_note, m_forget, m_all;
};

} // namespace obregd

#endif
