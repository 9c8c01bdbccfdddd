#include "keywatch.h"

namespace obregtool {

namespace {

bool isGone(const std::error_code& error)
{
    return error == obreg::Status::notFound || error == obreg::Status::keyDeleted;
}

/// Throws Failure when the daemon is none that tells changes.
void requireChanges(const KeyPath& path)
{
    std::error_code error;
    obreg::Key::open(obreg::Key::root(HKEY_DYN_DATA), "Changes", KEY_READ, error);
    if (error == obreg::Status::requestFailed)
        throw failureOf(path, nullptr, error);
    if (error)
        throw Failure(ExitFailed, "the daemon does not tell what changes: it has no key HKEY_DYN_DATA\\Changes",
                      "this takes an obregd that is not older than this program");
}

} // namespace

bool KeyWatch::begin()
{
    requireChanges(m_path);
    for (bool settled = false; !settled;) {
        settled = true;
        std::error_code error = obreg::Status::notFound;
        KeyPath below = m_path;
        for (KeyPath at = m_path; isGone(error); at = at.parent()) {
            m_isThere = at.path == m_path.path;
            const obreg::Key key = openKey(at, KEY_READ, error);
            if (!error)
                m_watch = obreg::Watch::start(key, m_isThere ? m_scope : obreg::Watch::Scope::key, std::nullopt, error);
            if (isGone(error) && at.isRoot())
                break;
            if (isGone(error))
                below = at;
        }
        check(error, m_path);
        if (!m_isThere) { // has it come before the watch began?
            std::error_code absent;
            openKey(below, KEY_READ, absent);
            settled = isGone(absent);
        }
    }
    setAway(false);
    return m_isThere;
}

std::optional<obreg::Changes> KeyWatch::next(std::chrono::milliseconds limit)
{
    std::error_code error;
    obreg::Changes told = m_watch.next(limit, error);
    if (isGone(error) || (!m_isThere && !told.empty()))
        return std::nullopt;
    setAway(error == obreg::Status::requestFailed);
    if (!m_isAway)
        check(error, m_path);
    return told;
}

void KeyWatch::setAway(bool away)
{
    if (away && !m_isAway)
        m_output.warning("the daemon cannot be reached; this goes on when it is there again");
    m_isAway = away;
}

} // namespace obregtool
