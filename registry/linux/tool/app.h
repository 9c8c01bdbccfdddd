// The command line as a whole: which verbs there are, the options common to all, and how each ends.
#ifndef OBREG_TOOL_APP_H
#define OBREG_TOOL_APP_H

namespace obregtool {

/// Runs the tool and returns its exit status.
int runTool(int argc, const char* const* argv);

} // namespace obregtool

#endif
