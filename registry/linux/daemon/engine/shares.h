// What the operator wants shared, found in the store; and the engine that shares it. At the daemon's start.
#ifndef OBREGD_ENGINE_SHARES_H
#define OBREGD_ENGINE_SHARES_H

#include <memory>
#include <string>
#include <vector>

#include "daemon/engine/sharingoptions.h"
#include "daemon/store/store.h"

namespace obregd {

/// A key that is shared, and the name of what it shares.
struct Share {
    std::string name;
    KeyId top;
};

/// Finds the keys in the store, or makes them. Throws std::runtime_error, with what is wrong, when one has content that
/// is not the share's, or is below another.
std::vector<Share> prepareShares(WritableStore& store, const std::vector<ShareOption>& options);

/// Loads the engine's library, which stays loaded. Throws std::runtime_error, with what is wrong.
std::unique_ptr<engine::Engine> loadEngine(const SharingOptions& options);

} // namespace obregd

#endif
