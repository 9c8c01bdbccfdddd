// What guards the daemon's process: a log that never waits.
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

#include "daemon/log.h"

using namespace obregd;

namespace {

/// Standard error as a pipe that holds a few dozen lines, until this goes.
class PipeAsStandardError {
public:
    PipeAsStandardError()
    {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) == 0) {
            fcntl(ends[1], F_SETPIPE_SZ, 4096);
            m_read = ends[0];
            dup2(ends[1], STDERR_FILENO);
            close(ends[1]);
        }
    }
    ~PipeAsStandardError()
    {
        dup2(m_saved, STDERR_FILENO);
        close(m_saved);
        close(m_read);
    }

    std::string readLine() const
    {
        std::string line;
        for (char c = 0; read(m_read, &c, 1) == 1 && c != '\n';)
            line += c;
        return line;
    }

private:
    int m_saved = dup(STDERR_FILENO);
    int m_read = -1;
};

TEST(Log, NeverWaitsAndTellsWhatItLeftOut)
{
    const PipeAsStandardError pipe;
    const LogThread thread;
    constexpr size_t Lines = 5000;
    static_assert(Lines > 1024 + 4096 / 14, "more than queue and pipe hold");
    for (size_t i = 0; i < Lines; ++i)
        logLine(LOG_NOTICE, "line %zu", i); // a log that waits would never come to an end here
    size_t told = 0;
    for (size_t leftOut = 0; told < Lines;) {
        const std::string line = pipe.readLine();
        if (std::sscanf(line.c_str(), "obregd: log lines left out here because nobody took them in time: %zu", // NOLINT
                        &leftOut) == 1)
            told += leftOut;
        else
            ASSERT_EQ(line, "obregd: line " + std::to_string(told++));
    }
    EXPECT_EQ(told, Lines);
}

TEST(Log, LimitsWhatOneCauseMayWrite)
{
    LogLimit limit;
    LogLimit::Time now = std::chrono::steady_clock::now();
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(limit.allow(now), 0u);
    EXPECT_FALSE(limit.allow(now));
    EXPECT_FALSE(limit.allow(now + std::chrono::seconds(9)));
    EXPECT_EQ(limit.allow(now += std::chrono::seconds(10)), 2u);
    EXPECT_FALSE(limit.allow(now));
    EXPECT_FALSE(limit.isFresh(now += std::chrono::hours(1))) << "a line was left out";
    EXPECT_EQ(limit.allow(now), 1u);
    EXPECT_TRUE(limit.isFresh(now + std::chrono::seconds(10)));
}

} // namespace
