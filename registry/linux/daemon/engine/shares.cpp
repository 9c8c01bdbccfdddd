#include "daemon/engine/shares.h"

#include <algorithm>
#include <dlfcn.h>
#include <fstream>
#include <stdexcept>

#include "daemon/engine/copy.h"
#include "daemon/govern/names.h"
#include "obreg/roots.h"

namespace obregd {

namespace {

KeyId rootOf(HANDLE root)
{
    return root == HKEY_LOCAL_MACHINE  ? MachineId
           : root == HKEY_USERS        ? UsersId
           : root == HKEY_CLASSES_ROOT ? ClassesId
                                       : 0;
}

/// The key at a path, with those above it made when they are not there.
KeyId keyAt(WritableStore& store, const regtext::KeyPath& key)
{
    KeyId at = rootOf(key.root);
    for (size_t begin = 0; begin < key.path.size();) {
        const size_t end = std::min(key.path.find('\\', begin), key.path.size());
        const std::string name = key.path.substr(begin, end - begin);
        const auto child = store.child(at, name);
        const Owner owner = at == UsersId ? ownerOfUserTree(name) : store.key(at)->owner;
        at = child ? *child : store.addKey(at, name, owner);
        begin = end + 1;
    }
    return at;
}

std::string firstLine(const std::string& file)
{
    std::ifstream in(file);
    std::string line;
    if (!std::getline(in, line))
        throw std::runtime_error(file + ": cannot be read, or is empty; it is to hold the password for the engine");
    return line;
}

} // namespace

ShareOption parseShare(const std::string& text)
{
    const size_t equals = text.rfind('=');
    ShareOption share;
    if (equals != std::string::npos)
        share.name = text.substr(equals + 1);
    if (!isToken(share.name))
        throw std::runtime_error(text + ": write the key, = and a name of letters, digits, '-', '_' and '.', such as "
                                        R"('HKEY_LOCAL_MACHINE\Shared=office')");
    try {
        share.key = regtext::parseKey(text.substr(0, equals), regtext::KeyForm::Plain);
    } catch (const regtext::BadKey& bad) {
        throw std::runtime_error(text + ": " + bad.message);
    }
    if (rootOf(share.key.root) == 0)
        throw std::runtime_error(text + ": only what is below HKLM, HKCR or HKU can be shared");
    return share;
}

std::vector<Share> prepareShares(WritableStore& store, const std::vector<ShareOption>& options)
{
    std::vector<Share> shares;
    store.begin();
    for (const ShareOption& option : options) {
        for (const ShareOption& other : options)
            if (&other != &option && (option.key.isWithin(other.key) || option.name == other.name))
                throw std::runtime_error(option.key.text() +
                                         ": is shared twice, or below another shared key, or has the "
                                         "name of another share; share each key once");
        const KeyId top = keyAt(store, option.key);
        const Key key = *store.key(top);
        if ((key.subKeys != 0 || key.values != 0) && SharedCopy(store, option.name, top).revision() == 0)
            throw std::runtime_error(option.key.text() +
                                     ": has content of this machine's own, which sharing would replace; export and "
                                     "delete it first, and import it when it is shared");
        shares.push_back({option.name, top});
    }
    store.commit();
    return shares;
}

std::unique_ptr<engine::Engine> loadEngine(const SharingOptions& options)
{
    const std::string library = options.library.empty() ? OBREG_ENGINE_LIBRARY : options.library;
    void* const pLibrary = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (pLibrary == nullptr)
        throw std::runtime_error(std::string("the engine for shared trees cannot be loaded: ") + dlerror() +
                                 "; install the package obregd-etcd");
    const auto pOpen = reinterpret_cast<engine::Open*>(dlsym(pLibrary, "obregd_engine_open"));
    engine::Options engine = options.engine;
    if (!options.passwordFile.empty())
        engine.password = firstLine(options.passwordFile);
    std::string why = "it is no engine";
    std::unique_ptr<engine::Engine> pEngine(pOpen == nullptr ? nullptr : pOpen(engine::Version, engine, why));
    if (pEngine == nullptr)
        throw std::runtime_error(library + ": " + why);
    return pEngine;
}

} // namespace obregd
