// Standard input, output and error where a program was started without them.
//
// A descriptor that is closed is the next one to be given out. A program that opens a socket then has it as standard
// output, say, and sends there what it prints.
#ifndef OBREG_STANDARDSTREAMS_H
#define OBREG_STANDARDSTREAMS_H

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

/// Opens those of descriptors 0 to 2 that are closed, the wrong way round: who reads or writes there still fails, with
/// EBADF. To be called first in main, before anything else can open something. Without a /dev/null the root folder does
/// as well; where not even that can be had, the process ends.
inline void fillStandardStreams()
{
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) != -1 || errno != EBADF)
            continue;
        if (open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY) == -1 && open("/", O_PATH) == -1)
            std::_Exit(EXIT_FAILURE);
    }
}

#endif
