// What everybody may know of the trees that are shared with other machines: the keys below HKEY_DYN_DATA\Shared.
//
// Set once, before the daemon serves; the views are for any thread.
#ifndef OBREGD_ENGINE_SHAREVIEW_H
#define OBREGD_ENGINE_SHAREVIEW_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace obregd {

class ShareView {
public:
    explicit ShareView(std::string share) : name(std::move(share)) {}

    const std::string name;
    std::atomic<int64_t> revision{0}; ///< of the engine, up to which all is here

    /// "connected", "reading" or "away: why"; milliseconds for which nothing was heard; who makes up the engine.
    struct State {
        std::string text;
        uint64_t lag;
        std::string members;
    };
    State state() const;

    enum class Is { Reading, Away, Connected };
    /// Returns what it was.
    Is set(Is is, const std::string& why = {});
    void setMembers(std::string members);

private:
    using Clock = std::chrono::steady_clock;

    mutable std::mutex m_mutex; // guards what follows
    Is m_is = Is::Reading;
    Clock::time_point m_heard = Clock::now(); // when it was last connected
    std::string m_why;
    std::string m_members;
};

using ShareViews = std::vector<std::shared_ptr<ShareView>>;

/// Empty when nothing is shared.
const ShareViews& shareViews();
void setShareViews(ShareViews views);

} // namespace obregd

#endif
