// What stands between a verb and its first change: --dry-run and --backup.
//
// A verb gives its changes as a function that tells them to a sink, in their order; it is called once for each look at
// them. Main thread.
#ifndef OBREG_TOOL_CAUTION_H
#define OBREG_TOOL_CAUTION_H

#include <functional>
#include <string>

#include "arguments.h"
#include "output.h"
#include "rehearsal.h"

namespace obregtool {

using Changes = std::function<void(RegSink&)>;

struct Caution {
    bool dryRun = false;
    std::string backup; ///< a file to make first; may be empty
    bool force = false; ///< may replace that file
};

void addDryRun(Arguments& arguments, Caution& caution);
void addDryRunAndBackup(Arguments& arguments, Caution& caution);

/// Does what was asked for before the changes are made, and says whether they are to be made. Throws the Failure of a
/// change that would be refused, also for a condition that does not hold.
bool prepare(const Caution& caution, Rehearsal::Missing missing, const Changes& changes, Output& output);

/// Runs what makes the changes. A failure says, where there is a backup, that it brings back what was there.
void carryOut(const Caution& caution, const std::function<void()>& make);

} // namespace obregtool

#endif
