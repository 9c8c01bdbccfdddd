#include "daemon/serve/users.h"

namespace obregd {

namespace {

constexpr size_t Kept = 1000; // users, before those who have left are forgotten

} // namespace

bool Rate::take(size_t perSecond, Clock::time_point now)
{
    if (perSecond == 0)
        return true;
    const auto most = static_cast<double>(perSecond);
    const std::chrono::duration<double> passed = now - m_seen;
    m_left = std::min(most, m_left + passed.count() * most);
    m_seen = now;
    if (m_left < 1)
        return false;
    m_left -= 1;
    return true;
}

void warn(User& user, pid_t process, Cause cause, const std::string& text)
{
    const auto leftOut = user.logged[static_cast<size_t>(cause)].allow(std::chrono::steady_clock::now());
    if (!leftOut)
        return;
    const std::string others = *leftOut == 0 ? "" : " (" + std::to_string(*leftOut) + " such lines were left out)";
    logLine(LOG_WARNING, "uid %u, process %d: %s%s", user.uid, process, text.c_str(), others.c_str());
}

std::shared_ptr<User> Users::of(uid_t uid)
{
    std::shared_ptr<User>& pUser = m_users[uid];
    if (pUser != nullptr)
        return pUser;
    auto pNew = std::make_shared<User>(uid);
    pUser = pNew;
    if (m_users.size() > Kept)
        std::erase_if(m_users, [](const auto& entry) { return entry.second.use_count() == 1; });
    return pNew;
}

} // namespace obregd
