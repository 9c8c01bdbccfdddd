// What an operator asks about a store file: is it sound, and may I have a copy?
//
// Both only read the store, from one state of it, so a daemon may be running on it and writing all the while. Both need
// the right to read the file: run them as root or as the daemon's user. They throw std::runtime_error with a message
// for the operator. No state; any thread.
#ifndef OBREG_DAEMON_STORE_MAINTENANCE_H
#define OBREG_DAEMON_STORE_MAINTENANCE_H

#include <cstdint>
#include <string>
#include <vector>

namespace obregd {

struct StoreReport {
    int64_t keys = 0;                  ///< predefined roots included
    int64_t values = 0;                ///< without those of deleted keys
    std::vector<std::string> problems; ///< a sentence each, the first hundred of a kind; empty for a sound store

    std::string summary() const;
};

/// Checks the file's own structure and that what it says about itself agrees: that each key's counts and
/// greatest lengths are those of its sub-keys and values, that each key hangs on a root, that no value lacks its key
/// but those that are to be cleared away, that no key number can come twice, that each owner takes what is said.
StoreReport checkStore(const std::string& storePath);

/// Copies the store into a new file (0600), which is checked, on disk and complete once it is there; a failure leaves
/// none. Refuses when there is such a file.
StoreReport backUpStore(const std::string& storePath, const std::string& backupPath);

} // namespace obregd

#endif
