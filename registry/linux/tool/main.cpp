// obreg: the registry at a person's hand.
#include <csignal>

#include "app.h"

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_DFL); // `obreg ... | head` ends quietly, whatever was inherited
    return obregtool::runTool(argc, argv);
}
