#include "daemon/engine/shareview.h"

#include <utility>

namespace obregd {

namespace {

ShareViews shared;

} // namespace

ShareView::State ShareView::state() const
{
    const std::lock_guard lock(m_mutex);
    const auto silence = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - m_heard);
    switch (m_is) {
    case Is::Reading:
        return {"reading", static_cast<uint64_t>(silence.count()), m_members};
    case Is::Away:
        return {"away: " + m_why, static_cast<uint64_t>(silence.count()), m_members};
    default:
        return {"connected", 0, m_members};
    }
}

ShareView::Is ShareView::set(Is is, const std::string& why)
{
    const std::lock_guard lock(m_mutex);
    if (is == Is::Connected || m_is == Is::Connected)
        m_heard = Clock::now();
    m_why = why;
    return std::exchange(m_is, is);
}

void ShareView::setMembers(std::string members)
{
    const std::lock_guard lock(m_mutex);
    m_members = std::move(members);
}

const ShareViews& shareViews() { return shared; }

void setShareViews(ShareViews views) { shared = std::move(views); }

} // namespace obregd
