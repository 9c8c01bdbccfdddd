// How a shared tree stands in an engine: which entry is which key or value, and what it says.
//
// All entries of a share begin with "/obreg/NAME/". Behind that:
//
//     k PATH              a key; PATH is "\" and a name for each level, in small letters (ASCII), and empty at the top
//     v PATH NUL NAME     a value of that key, the name in small letters
//     t UID/TOKEN         a transaction that was done
//     y DAEMON            set by who wants to know that he has seen all that was there when he asked
//     a DAEMON/NUMBER     what a daemon's change number NUMBER of those under way was last: nobody watches these
//
// A key says "key TIME UID PLACE\nNAME", a value "value TIME UID TYPE PLACE LENGTH\nNAMEDATA": the time in the
// registry's units, who did it, the place among what was made in the same revision, and the name as it was written
// first. A key is also set anew when something in it is deleted, so that its revision tells of that, too. Keys and
// values are enumerated in the order of the engine's revisions of creation, then of PLACE.
//
// Pure functions; any thread.
#ifndef OBREGD_ENGINE_ENTRIES_H
#define OBREGD_ENGINE_ENTRIES_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "obreg/obreg.h"

namespace obregd {

/// The entries of one share.
class EntryNames {
public:
    explicit EntryNames(const std::string& share) : m_prefix("/obreg/" + share + '/') {}

    // Paths are from the top of the shared tree, names separated by backslashes, in any case.
    std::string key(std::string_view path) const;
    std::string value(std::string_view path, std::string_view name) const;
    std::string token(uid_t uid, const std::string& token) const;
    std::string sync(const std::string& daemon) const { return m_prefix + 'y' + daemon; }
    std::string underWay(const std::string& daemon, size_t number) const
    {
        return m_prefix + 'a' + daemon + '/' + std::to_string(number);
    }

    // [begin, end) of what is watched; of all keys and values below a key, without its own; of its own values.
    std::string begin() const { return m_prefix + 'k'; }
    std::string end() const { return m_prefix + 'z'; }
    static std::string below(std::string_view entry) { return std::string(entry) + '\\'; }
    static std::string belowEnd(std::string_view entry) { return std::string(entry) + ']'; }
    static std::string values(std::string_view entry) { return std::string(entry) + '\0'; }
    static std::string valuesEnd(std::string_view entry) { return std::string(entry) + '\1'; }

    /// What an entry is.
    struct Parsed {
        char kind;        ///< k, v, t or y; 0: nothing that is known here
        std::string path; ///< of a key, or of a value's; of others what follows the kind
        std::string name; ///< of a value
    };
    Parsed parse(std::string_view entry) const;

private:
    const std::string m_prefix;
};

/// What the entry of a key or a value says.
struct EntryText {
    uint64_t time = 0;
    uid_t uid = 0;
    UINT32 type = 0; ///< of a value
    uint64_t place = 0;
    std::string name; ///< the last of a key's path, or the value's
    std::string data; ///< of a value
};

std::string keyText(const EntryText& key);
std::string valueText(const EntryText& value);
/// Nothing when it is no such text.
std::optional<EntryText> parseEntry(std::string_view text);

} // namespace obregd

#endif
