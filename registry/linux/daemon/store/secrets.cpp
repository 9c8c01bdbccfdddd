#include "daemon/store/secrets.h"

#include <algorithm>

#include "daemon/store/statements.h"
#include "obreg/roots.h"

namespace obregd {

namespace {

constexpr size_t MostAnswers = 65536;
constexpr auto FadingTime = std::chrono::minutes(1);
constexpr auto FadingPause = std::chrono::seconds(1); // there may be many to look at

constexpr const char* AllMarks =
    "SELECT key FROM regvalue INDEXED BY regvalue_secret WHERE name = '" OBREG_SECRET_VALUE "'";
constexpr const char* Uncleared = "SELECT number, key FROM change WHERE number > ?1 AND number <= ?2 AND kind >= 3 "
                                  "AND secret IS NULL ORDER BY number";
constexpr const char* Clear = "UPDATE change SET data = NULL, secret = 1 WHERE number = ?";

} // namespace

Secrets::Secrets(SQLite::Database& database)
    : m_database(database), m_places(database), m_allMarks(database, AllMarks), m_uncleared(database, Uncleared),
      m_clear(database, Clear), m_last(database, "SELECT ifnull(max(number), 0) FROM change")
{
    distrust();
}

void Secrets::setPatterns(std::vector<SecretPattern> patterns)
{
    m_patterns = std::move(patterns);
    distrust();
}

void Secrets::marked(KeyId key, int64_t lastChange)
{
    m_fading.erase(key);
    if (!m_marks.insert(key).second)
        return;
    m_now = {0, true};
    m_upTo = lastChange;
    forget();
}

void Secrets::unmarked(KeyId key)
{
    if (!m_marks.contains(key))
        return;
    m_now.marks = true;
    m_fading[key] = Clock::now() + FadingTime;
}

void Secrets::fade()
{
    const Clock::time_point now = Clock::now();
    const auto isOver = [&](const auto& one) {
        if (one.second > now)
            return false;
        m_marks.erase(one.first);
        return true;
    };
    m_nextFade = now + FadingPause;
    if (std::erase_if(m_fading, isOver) != 0)
        forget();
}

void Secrets::committed()
{
    m_now.marks = false;
    m_stored = m_now;
}

void Secrets::rolledBack()
{
    m_isStale = m_isStale || m_now.marks;
    m_now = m_stored;
}

void Secrets::distrust()
{
    m_marks.clear();
    {
        const Use use(m_allMarks);
        while (m_allMarks.executeStep())
            m_marks.insert(m_allMarks.getColumn(0).getInt64());
    }
    std::erase_if(m_fading, [this](const auto& one) { return !m_marks.insert(one.first).second; }); // it is there again
    const Use use(m_last);
    m_upTo = hasAny() && m_last.executeStep() ? m_last.getColumn(0).getInt64() : 0;
    m_stored = {};
    m_now = {0, m_now.marks};
    forget();
    m_isStale = false;
}

/// The answers that have been given hold no more.
void Secrets::forget()
{
    m_answers.clear();
    m_database.exec(hasAny() ? "PRAGMA secure_delete = ON" : "PRAGMA secure_delete = FAST");
}

bool Secrets::isSecret(KeyId key)
{
    if (const auto known = m_answers.find(key); known != m_answers.end())
        return known->second;
    std::vector<std::string> path;
    bool secret = false;
    KeyId root = key;
    for (;;) {
        secret = secret || m_marks.contains(root);
        const std::optional<Place> place = m_places.of(root);
        if (!place || place->parent == 0 || path.size() > MaxLevels)
            break;
        path.push_back(place->name);
        root = place->parent;
    }
    std::reverse(path.begin(), path.end());
    for (const SecretPattern& pattern : m_patterns)
        secret = secret || pattern.matches(root, path);
    if (m_answers.size() >= MostAnswers)
        m_answers.clear();
    m_answers.emplace(key, secret);
    return secret;
}

void Secrets::clearSome(int rows)
{
    if (m_isStale)
        distrust();
    const int64_t upTo = std::min(m_now.cleared + rows, m_upTo);
    std::vector<int64_t> numbers;
    {
        const Use use(m_uncleared);
        for (bindAll(m_uncleared, m_now.cleared, upTo); m_uncleared.executeStep();)
            if (has(m_uncleared.getColumn(1).getInt64()))
                numbers.push_back(m_uncleared.getColumn(0).getInt64());
    }
    for (const int64_t number : numbers)
        run(m_clear, number);
    m_now.cleared = upTo;
}

} // namespace obregd
