// changes.hpp - a change in the registry, as watch.hpp tells it, and how it is read from what the daemon answers.
// Values; any thread. Comes with watch.hpp.
#ifndef OBREG_CHANGES_HPP
#define OBREG_CHANGES_HPP

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <obreg/registry.hpp>

namespace obreg {

enum class ChangeKind { keyMade, keyDeleted, valueSet, valueDeleted };

/// One change.
struct Change {
    UINT64 number = 0;
    ChangeKind kind = ChangeKind::keyMade;
    std::string path; ///< of the key, from the watched one; empty for the watched key itself
    std::string name; ///< of the value, as an enumeration shows it; empty for a key that was made or deleted
};

/// What next() tells.
struct Changes {
    UINT64 number = 0; ///< up to here
    bool lost = false; ///< some are no longer known: what is watched is to be read anew
    std::vector<Change> changes;

    bool empty() const { return !lost && changes.empty(); }
};

namespace detail {

/// Takes a text up to a tab, and the tab, off the front of another one.
inline std::string takeField(std::string& text)
{
    const size_t end = std::min(text.find('\t'), text.size());
    std::string field = text.substr(0, end);
    text.erase(0, std::min(end + 1, text.size()));
    return field;
}

/// Reads what Changes answers.
inline Changes parseChanges(std::string data)
{
    static constexpr const char* kinds[] = {"key-made", "key-deleted", "value-set", "value-deleted"};
    Changes told;
    bool first = true;
    StringList lines = ValueOf<StringList>::decode({REG_MULTI_SZ, std::move(data)}).value();
    for (std::string& line : lines) {
        char* pRest = nullptr;
        const UINT64 number = std::strtoull(line.c_str(), &pRest, 10);
        if (first) {
            told.number = number;
            told.lost = std::strcmp(pRest, " lost") == 0;
        }
        if (std::exchange(first, false))
            continue;
        takeField(line);
        const auto* const pKind = std::find(std::begin(kinds), std::end(kinds), takeField(line));
        if (pKind == std::end(kinds))
            continue; // nothing that this version knows
        std::string path = takeField(line);
        told.changes.push_back({number, static_cast<ChangeKind>(pKind - kinds), std::move(path), std::move(line)});
    }
    return told;
}

inline std::string hexadecimal(UINT64 number)
{
    std::string digits;
    for (; number != 0; number >>= 4)
        digits.insert(digits.begin(), "0123456789abcdef"[number & 15]);
    return digits;
}

} // namespace detail

} // namespace obreg

#endif
