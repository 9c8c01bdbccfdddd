// Which keys are shared, as the operator says it, and through which engine.
#ifndef OBREGD_ENGINE_SHARINGOPTIONS_H
#define OBREGD_ENGINE_SHARINGOPTIONS_H

#include <chrono>
#include <string>
#include <vector>

#include "daemon/engine/engine.h"
#include "regtext/keypath.h"

namespace obregd {

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

} // namespace obregd

#endif
