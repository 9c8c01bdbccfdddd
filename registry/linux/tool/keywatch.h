// A watch of a key that need not be there: until it is, of the nearest key above it that is.
//
// To follow a key: begin(), then look at it, then next() until that gives nothing, and from the beginning. What changes
// after begin() is told, so nothing falls between look and wait. One thread at a time.
#ifndef OBREG_TOOL_KEYWATCH_H
#define OBREG_TOOL_KEYWATCH_H

#include <chrono>
#include <optional>

#include <obreg/watch.hpp>

#include "output.h"

namespace obregtool {

class KeyWatch {
public:
    KeyWatch(KeyPath path, obreg::Watch::Scope scope, Output& output)
        : m_path(std::move(path)), m_scope(scope), m_output(output)
    {}

    /// Whether the key is there. Throws Failure.
    bool begin();
    /// What has changed, as Watch::next(); nothing when begin() is to be called, because the key may have come or gone.
    /// A daemon that is away is waited for, and the user told. Throws Failure.
    std::optional<obreg::Changes> next(std::chrono::milliseconds limit);

    /// For poll(): next() has something.
    int descriptor() { return m_watch.descriptor(); }

    /// To be called when a request has failed for want of a daemon. The user is told once, until there is one.
    void setAway(bool away);
    bool isAway() const { return m_isAway; }

private:
    const KeyPath m_path;
    const obreg::Watch::Scope m_scope;
    Output& m_output;
    obreg::Watch m_watch;
    bool m_isThere = false;
    bool m_isAway = false;
};

/// Runs a part of following a key. False, after a moment, when the daemon was away: follow from the beginning. Throws
/// what else went wrong.
template <class Part>
bool outliving(KeyWatch& watch, const Part& part)
{
    try {
        part();
        return true;
    } catch (const Failure& failure) {
        if (failure.exit != ExitNoDaemon)
            throw;
    }
    watch.setAway(true);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    return false;
}

} // namespace obregtool

#endif
