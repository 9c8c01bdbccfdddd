// obreg: the registry at a person's hand.
#include <cerrno>
#include <csignal>
#include <cstdio>

#include "app.h"
#include "errors.h"
#include "standardstreams.h"

namespace {

/// What a verb prints it looks after itself; help, version and completion do not.
int statusOfOutput()
{
    errno = 0;
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0)
        return obregtool::ExitDone;
    if (errno == 0 && write(STDOUT_FILENO, "", 0) == 0) // an earlier one failed, of which nothing else is known
        errno = EIO;
    const obregtool::Failure failure = obregtool::fileFailure("standard output", errno);
    std::fprintf(stderr, "obreg: %s\n  %s\n", failure.what(), failure.advice.c_str());
    return failure.exit;
}

} // namespace

int main(int argc, char** argv)
{
    fillStandardStreams();
    std::signal(SIGPIPE, SIG_DFL); // `obreg ... | head` ends quietly, whatever was inherited
    const int status = obregtool::runTool(argc, argv);
    return status == obregtool::ExitDone ? statusOfOutput() : status;
}
