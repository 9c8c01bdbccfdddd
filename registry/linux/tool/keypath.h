// Keys as the tool opens them and as the command line names them. Stateless; any thread.
#ifndef OBREG_TOOL_KEYPATH_H
#define OBREG_TOOL_KEYPATH_H

#include <obreg/registry.hpp>

#include "regtext/keypath.h"

namespace obregtool {

using namespace regtext;

/// Opens or makes a key; a root is not asked for.
obreg::Key openKey(const KeyPath& path, UINT32 access, std::error_code& error);
obreg::Key openKey(const KeyPath& path, UINT32 access = KEY_READ); ///< throws Failure
obreg::Key makeKey(const KeyPath& path, bool* pCreated, std::error_code& error);

/// parseKey() for the command line: slashes allowed, throws UsageError.
KeyPath keyArgument(const std::string& text);

/// "", "@" and "default" in any case all are a key's unnamed value.
bool isUnnamed(std::string_view valueName);

} // namespace obregtool

#endif
