// Changes that are to be taken back, as one: what was there before them, compared with what is there now.
//
// It gets the changes from the newest to the oldest, looks at the registry once, and then tells sinks what would bring
// back what was, and on what that rests. Owned and called by one thread.
#ifndef OBREG_TOOL_UNDOING_H
#define OBREG_TOOL_UNDOING_H

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "batch.h"
#include "history.h"
#include "regtext/regreader.h"

namespace obregtool {

class Undoing {
public:
    /// Takes a change back; one that is older than those before.
    void take(const PastChange& change);

    /// Looks at what is there now, as it has been since that change. Throws the Failure of what cannot be brought back,
    /// before anything is done.
    void look(uint64_t since);

    /// What makes it so. Marks of secret keys come first and go last.
    void tell(RegSink& sink) const;
    /// That all which tell() changes is as it was when it was looked at.
    void tellConditions(Batch& batch) const;

    size_t changes() const { return m_changes; }
    bool empty() const { return m_removed.empty() && m_made.empty() && m_values.empty(); }

private:
    struct ValueBefore {
        std::string name;
        Past past;
        uint64_t number; ///< the change before which it was that
    };
    struct KeyBefore {
        KeyPath path;
        std::optional<bool> existed; ///< none: it is what it was
        uint64_t lostBy = 0;         ///< the change that took values which were not noted
        std::map<std::string, ValueBefore> values;
    };
    struct ValueWork {
        KeyPath key;
        std::string name;
        std::optional<obreg::Value> now, before;
        bool isMark;
    };

    void lookAt(const KeyBefore& key, const obreg::Key& open);

    uint64_t m_since = 0;
    size_t m_changes = 0;
    std::map<std::string, KeyBefore> m_keys; // by identity: a key comes before those below it
    std::vector<KeyPath> m_removed, m_made;
    std::vector<ValueWork> m_values;
};

} // namespace obregtool

#endif
