// The store's file: what is in it, and making or checking it before it is used.
#ifndef OBREG_DAEMON_STORE_SCHEMA_H
#define OBREG_DAEMON_STORE_SCHEMA_H

#include <string>

namespace obregd {

/// Makes the file with its tables and roots when there is none, else makes sure that it is one of ours. Throws
/// std::runtime_error with a message for the operator. Returns path.
const std::string& prepareStoreFile(const std::string& path);

} // namespace obregd

#endif
