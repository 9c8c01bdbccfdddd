// What everybody may know of the trees that are shared with other machines: the keys below HKEY_DYN_DATA\Shared.
//
// Set once, before the daemon serves; the views are for any thread.
#ifndef OBREGD_ENGINE_SHAREVIEW_H
#define OBREGD_ENGINE_SHAREVIEW_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace obregd {

struct ShareView {
    std::string name;
    std::atomic<int64_t> revision{0}; ///< of the engine, up to which all is here
    /// "connected", "reading" or "away: why"; milliseconds for which nothing was heard; who makes up the engine.
    struct State {
        std::string text;
        uint64_t lag;
        std::string members;
    };
    std::function<State()> state;
};

using ShareViews = std::vector<std::shared_ptr<ShareView>>;

/// Empty when nothing is shared.
const ShareViews& shareViews();
void setShareViews(ShareViews views);

} // namespace obregd

#endif
