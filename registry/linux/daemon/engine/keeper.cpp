#include "daemon/engine/keeper.h"

#include <cinttypes>

#include "daemon/log.h"

namespace obregd {

namespace {

constexpr size_t PageLength = 2000;
constexpr size_t MostWaiting = 50'000; // events: then the engine is to wait
constexpr auto ReadPatience = std::chrono::seconds(5);
constexpr auto ReadPause = std::chrono::milliseconds(500); // after a failure
constexpr auto LookPause = std::chrono::seconds(10);       // between two looks at the engine
constexpr auto LookPatience = std::chrono::seconds(1);

} // namespace

ShareKeeper::ShareKeeper(engine::Engine& engine, std::shared_ptr<ShareView> pView, std::function<void()> wake)
    : m_engine(engine), m_pView(std::move(pView)), m_names(m_pView->name), m_wake(std::move(wake)),
      m_revision(m_pView->revision), m_thread([this] { run(); })
{}

ShareKeeper::~ShareKeeper()
{
    {
        const std::lock_guard lock(m_mutex);
        m_ending = true;
    }
    m_changed.notify_all();
    m_thread.join();
}

ShareKeeper::News ShareKeeper::take()
{
    News news;
    {
        const std::lock_guard lock(m_mutex);
        std::swap(news, m_news);
        m_waiting = 0;
    }
    m_changed.notify_all();
    return news;
}

void ShareKeeper::changed(std::vector<engine::Revision>&& revisions)
{
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return m_waiting < MostWaiting || m_ending; });
        for (engine::Revision& revision : revisions) {
            m_waiting += revision.events.size();
            m_news.revisions.push_back(std::move(revision));
        }
    }
    m_wake();
}

void ShareKeeper::compacted()
{
    logLine(LOG_WARNING,
            "share %s: the engine no longer has what changed since its revision %" PRId64
            ", for it was compacted; the whole tree is read again",
            m_pView->name.c_str(), m_revision);
    {
        const std::lock_guard lock(m_mutex);
        m_isOutdated = true;
    }
    m_changed.notify_all();
}

void ShareKeeper::reached(bool isReached, const std::string& why)
{
    using Is = ShareView::Is;
    const Is before = m_pView->set(isReached ? Is::Connected : Is::Away, why);
    const bool isNews = isReached != (before == Is::Connected);
    if (isNews && isReached)
        logLine(LOG_NOTICE, "share %s: the engine is reached", m_pView->name.c_str());
    else if (!isReached && before != Is::Away)
        logLine(LOG_WARNING, "share %s: the engine cannot be reached: %s; reads go on, writes wait",
                m_pView->name.c_str(), why.c_str());
    m_wake();
}

void ShareKeeper::failed(const std::string& why)
{
    if (m_pView->set(ShareView::Is::Away, why) != ShareView::Is::Away)
        logLine(LOG_WARNING, "share %s: the engine cannot be reached: %s; reads go on, writes wait",
                m_pView->name.c_str(), why.c_str());
}

/// False when it is to end.
bool ShareKeeper::pause(std::chrono::milliseconds time)
{
    std::unique_lock lock(m_mutex);
    return !m_changed.wait_for(lock, time, [this] { return m_ending; });
}

void ShareKeeper::run()
{
    while (m_revision == 0 || !isCurrent()) {
        if (std::optional<Whole> whole = readAll()) {
            m_revision = whole->revision;
            {
                const std::lock_guard lock(m_mutex);
                m_news = {std::move(whole), {}};
            }
            m_wake();
            break;
        }
        if (!pause(ReadPause))
            return;
    }
    for (;;) {
        auto pWatch = m_engine.watch(m_names.begin(), m_names.end(), m_revision, *this);
        std::unique_lock lock(m_mutex);
        while (!m_ending && !m_isOutdated) {
            lock.unlock();
            m_pView->setMembers(m_engine.members(LookPatience));
            std::string why; // the watch tells whether the engine is reached
            const bool isOlder = look(LookPatience, why) == Look::Older;
            lock.lock();
            m_isOutdated = m_isOutdated || isOlder;
            m_changed.wait_for(lock, LookPause, [this] { return m_ending || m_isOutdated; });
        }
        const bool ends = m_ending;
        m_isOutdated = false;
        lock.unlock();
        pWatch.reset();
        std::optional<Whole> whole;
        while (!ends && !(whole = readAll()))
            if (!pause(ReadPause))
                return;
        if (ends)
            return;
        m_revision = whole->revision;
        {
            const std::lock_guard relock(m_mutex);
            m_news = {std::move(whole), {}}; // what waits is older
        }
        m_wake();
    }
}

/// Whether the engine has got as far as the copy. It has not when it was set up anew, or from an old backup.
ShareKeeper::Look ShareKeeper::look(std::chrono::milliseconds patience, std::string& why)
{
    const int64_t here = m_pView->revision;
    const engine::Page page = m_engine.read(m_names.begin(), m_names.end(), 0, 1, patience);
    if (!page.good) {
        why = page.why;
        return Look::Away;
    }
    if (page.revision >= here)
        return Look::Current;
    logLine(LOG_WARNING, "share %s: the engine is older than the copy here, which is replaced by what it has",
            m_pView->name.c_str());
    return Look::Older;
}

/// Whether what the copy has can be gone on from. Waits until that is known.
bool ShareKeeper::isCurrent()
{
    for (;;) {
        std::string why;
        const Look found = look(ReadPatience, why);
        if (found != Look::Away)
            return found == Look::Current;
        failed(why);
        if (!pause(ReadPause))
            return true;
    }
}

std::optional<ShareKeeper::Whole> ShareKeeper::readAll()
{
    Whole whole{{}, 0};
    std::string from = m_names.begin();
    for (;;) {
        engine::Page page = m_engine.read(from, m_names.end(), whole.revision, PageLength, ReadPatience);
        if (!page.good) {
            failed(page.why);
            return std::nullopt;
        }
        if (whole.revision == 0)
            whole.revision = page.revision;
        for (engine::Entry& entry : page.entries)
            whole.entries.push_back(std::move(entry));
        if (!page.more || whole.entries.empty())
            return whole;
        from = whole.entries.back().key + '\0';
    }
}

} // namespace obregd
