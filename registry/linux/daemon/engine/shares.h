// Which keys are shared, as the operator says it, and with which engine.
#ifndef OBREGD_ENGINE_SHARES_H
#define OBREGD_ENGINE_SHARES_H

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "daemon/engine/engine.h"
#include "daemon/store/store.h"
#include "regtext/keypath.h"

namespace obregd {

/// A key that is shared, and the name of what it shares.
struct Share {
    std::string name;
    KeyId top;
};

struct ShareOption {
    regtext::KeyPath key;
    std::string name; ///< 1 to 64 letters, digits, '-', '_' and '.'
};

struct SharingOptions {
    std::vector<ShareOption> shares;
    std::string library; ///< of the engine; empty: the one that is installed
    engine::Options engine;
    std::string passwordFile;
    std::chrono::seconds patience{10}; ///< with the engine, before a write is answered that it is away
};

/// KEY=NAME. Throws std::runtime_error, with what is wrong.
ShareOption parseShare(const std::string& text);

/// Finds the keys in the store, or makes them. Throws std::runtime_error, with what is wrong, when one has content that
/// is not the share's, or is below another.
std::vector<Share> prepareShares(WritableStore& store, const std::vector<ShareOption>& options);

/// Loads the engine's library, which stays loaded. Throws std::runtime_error, with what is wrong.
std::unique_ptr<engine::Engine> loadEngine(const SharingOptions& options);

} // namespace obregd

#endif
