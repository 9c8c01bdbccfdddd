// What is measured: a way to get a value from another process, or to set it there.
//
// A contender is made once, before any thread; every thread then asks it for a call of its own and makes that call
// again and again. A call checks what it gets and throws when it is wrong.
#ifndef OBREG_BENCH_CONTENDER_H
#define OBREG_BENCH_CONTENDER_H

#include <cstddef>
#include <cstdio>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

struct Load {
    bool set = false;    // else query
    size_t bytes = 16;   // of the value
    std::string address; // of the service; not used by those whose address is fixed
    bool shared = false; // all threads on one connection, where a contender has the choice
    size_t keys = 10000; // of a registry with real data
    size_t values = 10;  // of each key
    size_t parked = 0;   // the registry: watches that wait beside
};

class Contender {
public:
    virtual ~Contender() = default;

    /// One thread's call. Any thread.
    virtual std::function<void()> newCall() = 0;
};

/// The value's name, which tells the echo daemon its size: 16 characters.
inline std::string valueName(size_t bytes)
{
    char name[32];
    snprintf(name, sizeof(name), "Size%012zu", bytes);
    return name;
}

inline void require(bool condition, const char* what)
{
    if (!condition)
        throw std::runtime_error(what);
}

std::unique_ptr<Contender> makeLibrary(const Load& load);
std::unique_ptr<Contender> makeFloor(const Load& load);
std::unique_ptr<Contender> makeRedis(const Load& load);
std::unique_ptr<Contender> makeDbus(const Load& load);
std::unique_ptr<Contender> makeNats(const Load& load);
std::unique_ptr<Contender> makeRegistry(const Load& load);

// What answers two of them; they do not return.
void serveDbus(const Load& load);
void serveNats(const Load& load);

void fillRegistry(const Load& load);
void enumerateRegistry(const Load& load);

#endif
