// The greatest lengths among a key's entries, kept with the key so that nobody has to look through the entries.
//
// Plain values; their owner guards them.
#ifndef OBREG_DAEMON_STORE_LENGTHS_H
#define OBREG_DAEMON_STORE_LENGTHS_H

#include <cstdint>

namespace obregd {

/// The greatest of some lengths, and how many are as great. When the last of the greatest has gone, the others are
/// known to be less than `length` and no more: it has to be worked out anew.
struct Greatest {
    int64_t length = 0;
    int64_t ties = 0;

    bool known() const { return ties > 0 || length == 0; }

    void add(int64_t added)
    {
        if (added > length)
            *this = {added, 1};
        else if (added == length)
            ++ties;
    }

    /// False when there cannot have been such a length.
    bool remove(int64_t removed)
    {
        if (removed == length)
            return --ties >= 0;
        return removed < length;
    }

    bool operator==(const Greatest&) const = default;
};

struct Lengths {
    Greatest subKeyName, valueName, valueData;
};

/// The columns that keep them, in this order.
inline constexpr const char LengthColumns[] =
    "subkey_name_max, subkey_name_ties, value_name_max, value_name_ties, value_data_max, value_data_ties";

} // namespace obregd

#endif
