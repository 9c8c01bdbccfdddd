// What a key or value may be called, and how a path names a key.
//
// Names are bytes. They are found whatever the case of their ASCII letters; that is the store's business.
#ifndef OBREG_DAEMON_GOVERN_NAMES_H
#define OBREG_DAEMON_GOVERN_NAMES_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "obreg/roots.h"

namespace obregd {

inline constexpr size_t MaxKeyNameLength = OBREG_MAX_KEY_NAME;
inline constexpr size_t MaxValueNameLength = OBREG_MAX_VALUE_NAME;
inline constexpr size_t MaxTokenLength = 64;
inline constexpr size_t MaxPathLevels = OBREG_MAX_PATH_KEYS;

/// True for a name that a value can have: at most MaxValueNameLength bytes, none of them a control character. The empty
/// name is the key's unnamed value.
bool isValueName(std::string_view name);

/// True for what a transaction's token can be: 1 to MaxTokenLength letters, digits, "-", "_" and ".".
bool isToken(std::string_view name);

/// Cuts a path at its backslashes into key names, outermost first; the empty path gives none. False when a name is
/// empty, too long or holds a control character, or when there are too many. One backslash at the end is overlooked.
bool splitPath(std::string_view path, std::vector<std::string>& names);

} // namespace obregd

#endif
