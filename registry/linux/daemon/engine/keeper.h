// Follows one shared tree in the engine: reads it whole when there is no copy, or an outdated one, and then watches it.
// What it learns waits until the thread that writes takes it.
//
// A thread of its own, and the engine's; take() and the figures are for any thread. The lock guards what waits; it is
// never held while the engine is asked or `wake` called.
#ifndef OBREGD_ENGINE_KEEPER_H
#define OBREGD_ENGINE_KEEPER_H

#include <condition_variable>
#include <mutex>
#include <thread>

#include "daemon/engine/engine.h"
#include "daemon/engine/entries.h"
#include "daemon/engine/shareview.h"

namespace obregd {

class ShareKeeper final : private engine::Watcher {
public:
    /// Goes on after the view's revision; 0: reads all. `wake` is called, on other threads, when there is something to
    /// take. The view tells its state from now on.
    ShareKeeper(engine::Engine& engine, std::shared_ptr<ShareView> pView, std::function<void()> wake);
    ~ShareKeeper() override;
    ShareKeeper(const ShareKeeper&) = delete;
    ShareKeeper& operator=(const ShareKeeper&) = delete;

    struct Whole {
        std::vector<engine::Entry> entries; ///< in order of key
        int64_t revision;
    };
    /// What has been learnt since the last call: first all that is there, if it was read anew, then what changed.
    struct News {
        std::optional<Whole> whole;
        std::vector<engine::Revision> revisions;
    };
    News take();

private:
    using Clock = std::chrono::steady_clock;

    void changed(std::vector<engine::Revision>&& revisions) override;
    void compacted() override;
    void reached(bool isReached, const std::string& why) override;
    void run();
    bool isCurrent();
    enum class Look { Current, Older, Away };
    Look look(std::chrono::milliseconds patience, std::string& why);
    std::optional<Whole> readAll();
    bool pause(std::chrono::milliseconds time);
    void failed(const std::string& why);

    engine::Engine& m_engine;
    const std::shared_ptr<ShareView> m_pView;
    const EntryNames m_names;
    const std::function<void()> m_wake;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    News m_news;
    size_t m_waiting = 0; // events in it
    int64_t m_revision;
    bool m_isOutdated = false;
    bool m_ending = false;
    std::thread m_thread; // last: it uses all the others
};

} // namespace obregd

#endif
