// The verbs. A verb declares its arguments and gives back what is to be done when it has been chosen; the table in
// app.cpp names them all.
#ifndef OBREG_TOOL_VERBS_H
#define OBREG_TOOL_VERBS_H

#include <functional>
#include <memory>

#include "arguments.h"
#include "errors.h"
#include "output.h"

namespace obregtool {

/// Runs the verb and returns the exit status; throws Failure, UsageError or std::system_error.
using Run = std::function<int(Output&)>;

/// What most of them begin with: a KEY, and options that are kept until the verb runs.
template <class Options>
std::shared_ptr<Options> withKey(Arguments& arguments)
{
    auto pOptions = std::make_shared<Options>();
    arguments.text("KEY", pOptions->key, "Key, such as HKLM/Software/Acme or 'HKLM\\Software\\Acme'",
                   Arguments::Required);
    return pOptions;
}

Run declareQuery(Arguments& arguments);
Run declareGet(Arguments& arguments);
Run declareLs(Arguments& arguments);
Run declareTree(Arguments& arguments);
Run declareInfo(Arguments& arguments);
Run declareAdd(Arguments& arguments);
Run declareSet(Arguments& arguments);
Run declareDelete(Arguments& arguments);
Run declareRm(Arguments& arguments);
Run declareExport(Arguments& arguments);
Run declareImport(Arguments& arguments);
Run declareCopy(Arguments& arguments);
Run declareCompare(Arguments& arguments);
Run declareFind(Arguments& arguments);
Run declareRename(Arguments& arguments);
Run declareMove(Arguments& arguments);
Run declareWatch(Arguments& arguments);
Run declareWait(Arguments& arguments);
Run declarePing(Arguments& arguments);
Run declareLog(Arguments& arguments);
Run declareBlame(Arguments& arguments);
Run declareUndo(Arguments& arguments);
Run declareShared(Arguments& arguments);

} // namespace obregtool

#endif
