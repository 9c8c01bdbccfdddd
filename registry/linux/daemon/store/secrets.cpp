#include "daemon/store/secrets.h"

#include <algorithm>
#include <utility>

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
      m_clear(database, Clear), m_first(database, "SELECT number FROM change ORDER BY number LIMIT 1"),
      m_last(database, "SELECT ifnull(max(number), 0) FROM change")
{
    distrust();
}

void Secrets::setPatterns(std::vector<SecretPattern> patterns)
{
    m_patterns = std::move(patterns);
    m_longestPattern = 0;
    for (const SecretPattern& pattern : m_patterns)
        m_longestPattern = std::max(m_longestPattern, pattern.names.size());
    distrust();
}

void Secrets::marked(KeyId key, int64_t lastChange)
{
    noteBefore(key);
    if (const auto fading = m_fading.find(key); fading != m_fading.end())
        fading->second = Never; // not erased: it may have to come back
    if (!m_marks.insert(key).second)
        return;
    m_now = {0, 0, lastChange};
    forget();
}

void Secrets::unmarked(KeyId key)
{
    if (!m_marks.contains(key))
        return;
    noteBefore(key);
    m_fading[key] = Clock::now() + FadingTime;
}

void Secrets::noteBefore(KeyId key)
{
    const auto fading = m_fading.find(key);
    m_changes.push_back({key, m_marks.contains(key), fading == m_fading.end() ? Never : fading->second});
}

void Secrets::fade()
{
    const Clock::time_point now = Clock::now();
    const auto isOver = [&](const auto& one) {
        if (one.second == Never) // it has the mark again
            return true;
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
    m_changes.clear();
    m_stored = point();
}

void Secrets::rolledBack(const Point& to)
{
    for (; m_changes.size() > to.changes; m_changes.pop_back()) {
        const auto& [key, isMarked, fades] = m_changes.back();
        if (!isMarked)
            m_marks.erase(key);
        if (const auto fading = m_fading.find(key); fading != m_fading.end())
            fading->second = fades;
    }
    m_now = to;
    m_isStale = true; // the numbers of keys that were made may be used again
}

void Secrets::distrust()
{
    m_marks.clear();
    m_changes.clear();
    {
        const Use use(m_allMarks);
        while (m_allMarks.executeStep())
            m_marks.insert(m_allMarks.getColumn(0).getInt64());
    }
    std::erase_if(m_fading, [this](const auto& one) { // or it is there again
        return one.second == Never || !m_marks.insert(one.first).second;
    });
    const Use use(m_last);
    m_stored = m_now = {0, 0, hasAny() && m_last.executeStep() ? m_last.getColumn(0).getInt64() : 0};
    forget();
}

/// The answers that have been given hold no more.
void Secrets::forget()
{
    m_answers.clear();
    applyOverwriting();
    m_isStale = false;
}

void Secrets::applyOverwriting()
{
    m_database.exec(hasAny() && m_overwrites ? "PRAGMA secure_delete = ON" : "PRAGMA secure_delete = FAST");
}

void Secrets::overwrite(bool overwrites)
{
    if (std::exchange(m_overwrites, overwrites) != overwrites)
        applyOverwriting();
}

bool Secrets::isSecret(KeyId key)
{
    const auto isEnough = [this](const Answer& answer) {
        return answer.isSecret ||
               answer.levels >= m_longestPattern; // no pattern names what is below for the first time
    };
    std::vector<std::pair<KeyId, std::string>> way; // upwards
    std::vector<std::string> path;                  // downwards
    KeyId up = key;
    Answer answer{false, 0};
    const auto isNamed = [&] {
        return std::any_of(m_patterns.begin(), m_patterns.end(),
                           [&](const SecretPattern& pattern) { return pattern.matches(up, path); });
    };
    for (;;) {
        if (const auto known = m_answers.find(up);
            known != m_answers.end() && (way.empty() || isEnough(known->second))) {
            answer = known->second;
            break;
        }
        const std::optional<Place> place = m_places.of(up);
        if (!place || place->parent == 0 || way.size() > MaxLevels) {
            answer.isSecret = m_marks.contains(up) || isNamed();
            break;
        }
        way.emplace_back(up, place->name);
        up = place->parent;
    }
    if (m_answers.size() + way.size() > MostAnswers)
        m_answers.clear();
    std::reverse(way.begin(), way.end());
    for (const auto& [at, name] : way) {
        ++answer.levels;
        answer.isSecret = answer.isSecret || m_marks.contains(at);
        if (!answer.isSecret && answer.levels <= m_longestPattern) {
            path.push_back(name);
            answer.isSecret = isNamed();
        }
        m_answers.emplace(at, answer);
    }
    return answer.isSecret;
}

void Secrets::clearSome(int rows)
{
    {
        const Use use(m_first);
        if (m_first.executeStep())
            m_now.cleared = std::max(m_now.cleared, m_first.getColumn(0).getInt64() - 1);
    }
    const int64_t upTo = std::min(m_now.cleared + rows, m_now.upTo);
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
