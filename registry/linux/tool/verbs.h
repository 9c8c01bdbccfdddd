// The verbs. A verb declares its arguments and gives back what is to be done when it has been chosen; the table in
// app.cpp names them all.
#ifndef OBREG_TOOL_VERBS_H
#define OBREG_TOOL_VERBS_H

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <functional>
#include <memory>

#include "errors.h"
#include "output.h"

namespace obregtool {

/// Runs the verb and returns the exit status; throws Failure, UsageError or std::system_error.
using Run = std::function<int(Output&)>;

Run declareQuery(CLI::App& app);
Run declareGet(CLI::App& app);
Run declareLs(CLI::App& app);
Run declareTree(CLI::App& app);
Run declareInfo(CLI::App& app);
Run declareAdd(CLI::App& app);
Run declareSet(CLI::App& app);
Run declareDelete(CLI::App& app);
Run declareRm(CLI::App& app);
Run declareExport(CLI::App& app);
Run declareImport(CLI::App& app);
Run declareCopy(CLI::App& app);
Run declareCompare(CLI::App& app);
Run declareWatch(CLI::App& app);
Run declarePing(CLI::App& app);

} // namespace obregtool

#endif
