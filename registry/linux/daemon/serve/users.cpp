#include "daemon/serve/users.h"

#include <array>
#include <cstdarg>
#include <cstdio>

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

void warn(User& user, pid_t process, Cause cause, const char* pFormat, ...)
{
    const auto leftOut = user.logged[static_cast<size_t>(cause)].allow(std::chrono::steady_clock::now());
    if (!leftOut)
        return;
    std::array<char, 512> text{};
    std::array<char, 64> others{};
    va_list values;
    va_start(values, pFormat);
    std::vsnprintf(text.data(), text.size(), pFormat, values); // NOLINT: the caller's format is checked
    va_end(values);
    if (*leftOut != 0)
        std::snprintf(others.data(), others.size(), " (%zu such lines were left out)", *leftOut);
    logLine(LOG_WARNING, "uid %u, process %d: %s%s", user.uid, process, text.data(), others.data());
}

std::shared_ptr<User> Users::of(uid_t uid)
{
    if (const auto known = m_users.find(uid); known != m_users.end())
        return known->second;
    auto pNew = std::make_shared<User>(uid);
    m_users.emplace(uid, pNew);
    if (m_users.size() > Kept)
        std::erase_if(m_users, [](const auto& entry) { return entry.second.use_count() == 1; });
    return pNew;
}

} // namespace obregd
