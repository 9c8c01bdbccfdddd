#include "daemon/serve/teller.h"

#include <asio/bind_allocator.hpp>

namespace obregd {

namespace {

constexpr auto TellTime = std::chrono::milliseconds(1);

} // namespace

bool Teller::watch(User& user, JobPtr& pJob, const Wait& wait)
{
    if (user.watches >= m_most)
        return false;
    // A reader looked, and there may have been more since then. What throws comes before the request is kept.
    const bool isNews = m_stopping || m_store.lastChange() > wait.watched.since;
    m_watches.add(std::move(pJob), wait, Watches::Clock::now());
    ++user.watches;
    if (isNews)
        m_watches.wakeAll(wait.watched.key);
    tellAwake();
    waitForTime();
    return true;
}

size_t Teller::end(const User& user, uint64_t id)
{
    const size_t ended = m_watches.end(user, id);
    tellAwake();
    return ended;
}

void Teller::drop(const Connection& connection) { connection.user().watches -= m_watches.drop(connection); }

/// Wakes those who want to know of changes.
void Teller::wake(const std::vector<Touched>& changes)
{
    if (m_watches.empty())
        return;
    try {
        m_watches.touched(changes, m_store);
    } catch (const std::exception&) { // who is woken for nothing waits on
        m_watches.wakeAll();
    }
    tellAwake();
}

/// Tells those who are awake, later and some at a time.
void Teller::tellAwake()
{
    if (m_telling || !m_watches.isAnyAwake())
        return;
    const auto tellSome = [this] {
        m_telling = false;
        const auto end = Watches::Clock::now() + TellTime;
        while (m_watches.isAnyAwake() && Watches::Clock::now() < end)
            tell(m_watches.takeAwake());
        tellAwake();
    };
    asio::post(m_io, asio::bind_allocator(Reserve::Allocator<char>(m_tellReserve), tellSome));
    m_telling = true;
}

void Teller::tell(Watches::Watch&& watch)
{
    const std::shared_ptr<Connection> pConnection = watch.pJob->pConnection;
    User& user = pConnection->user();
    --user.watches;
    if (!pConnection->isOpen())
        return;
    try {
        const auto now = Watches::Clock::now();
        const bool timeIsUp = m_stopping || now >= watch.pJob->waitsUntil;
        std::optional<Reply> reply;
        try {
            reply = tellChanges(m_store, watch.wait, timeIsUp);
        } catch (const SQLite::Exception& failure) {
            reply = watch.pJob->pOperation->refuse(statusOf(failure));
        } catch (const TooLong&) {
            return pConnection->lookLater(std::move(watch.pJob));
        }
        if (!reply) {
            m_watches.add(std::move(watch.pJob), watch.wait, now);
            ++user.watches;
            return;
        }
        pConnection->tell(*watch.pJob, std::move(*reply));
        pConnection->goOn();
    } catch (const std::exception& failure) {
        pConnection->cutOff(Cause::NoMemory, "%s", failure.what());
    }
}

/// Wakes those whose time is up, now and when the next one's is.
void Teller::waitForTime()
{
    const auto next = m_watches.timeIsUp(Watches::Clock::now());
    tellAwake();
    if (!next || (m_time && *m_time <= *next))
        return;
    m_time = next;
    m_timer.expires_at(*next);
    const auto act = [this](const asio::error_code& cancelled) {
        if (cancelled)
            return;
        m_time.reset();
        waitForTime();
    };
    m_timer.async_wait(asio::bind_allocator(Reserve::Allocator<char>(m_timeReserve), act));
}

void Teller::stop()
{
    m_stopping = true;
    m_watches.wakeAll();
    m_timer.cancel();
    tellAwake();
}

} // namespace obregd
