// watch.cpp - the same in C++, in a program that has other things to do: a loop on poll(), here with standard input
// beside the watch. watch_cpp [COUNT] ends after COUNT changes, or when standard input is at its end.
#include <cstdlib>
#include <iostream>
#include <obreg/watch.hpp>
#include <poll.h>

int main(int argc, char** argv)
try {
    using namespace obreg;
    long left = argc > 1 ? std::atol(argv[1]) : -1;
    Watch watch = Watch::start(Key::create(currentUser(), "Software\\Example"));
    pollfd sources[] = {{watch.descriptor(), POLLIN, 0}, {0, POLLIN, 0}};
    std::cout << "watching" << std::endl;

    while (left != 0 && poll(sources, 2, -1) > 0) {
        if (sources[1].revents != 0 && std::cin.get() == EOF)
            break;
        if (sources[0].revents == 0)
            continue;
        std::error_code error;
        const Changes told = watch.next(std::chrono::milliseconds(0), error);
        if (error && error != Status::requestFailed) // then the daemon is away: the watch goes on when it is back
            throw std::system_error(error, "watch");
        if (told.lost)
            std::cout << "more has changed than the daemon still knows: look at everything\n";
        for (const Change& change : told.changes) {
            static constexpr const char* const did[] = {"made", "deleted", "set", "deleted"};
            std::cout << change.number << ": " << did[static_cast<int>(change.kind)] << " \"" << change.path << "\" "
                      << change.name << std::endl;
            if (left > 0 && --left == 0)
                break;
        }
    }
    return 0;
} catch (const std::exception& failure) {
    std::cerr << failure.what() << '\n';
    return 1;
}
