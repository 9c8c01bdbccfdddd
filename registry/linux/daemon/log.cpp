#include "daemon/log.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <poll.h>
#include <unistd.h>

#include "common/ipcint.h"
#include "daemon/systemd.h"

int CDebugLevel = 0;

namespace obregd {

namespace {

constexpr size_t QueuedLines = 1024;
constexpr auto LastTime = std::chrono::seconds(1);

constexpr char Prefix[] = "obregd: ";
constexpr size_t PrefixLength = sizeof Prefix - 1;

bool g_standardError = true;

/// A line as standard error gets it, with prefix and newline.
struct Line {
    Line() = default;
    Line(int itsPriority, const char* pFormat, va_list arguments) : priority(itsPriority)
    {
        std::memcpy(text.data(), Prefix, PrefixLength);
        const size_t room = text.size() - PrefixLength;
        const int wanted = std::vsnprintf(text.data() + PrefixLength, room, pFormat, arguments);
        length = PrefixLength + std::min(static_cast<size_t>(std::max(wanted, 0)), room - 1);
        if (text[length - 1] == '\n')
            --length;
        text[length++] = '\n';
    }

    int priority;
    size_t length;
    size_t leftOut = 0; ///< lines between the one before and this one
    std::array<char, 1024> text;
};

void writeToStandardError(const char* pText, size_t length)
{
    while (length > 0) {
        const ssize_t written = write(STDERR_FILENO, pText, length);
        if (written >= 0) {
            pText += written;
            length -= static_cast<size_t>(written);
        } else if (errno == EAGAIN) { // somebody has made it non-blocking
            pollfd writable{STDERR_FILENO, POLLOUT, 0};
            poll(&writable, 1, -1);
        } else if (errno != EINTR) {
            return;
        }
    }
}

/// May take as long as its readers like.
void writeLine(const Line& line)
{
    if (g_standardError)
        writeToStandardError(line.text.data(), line.length);
    syslog(LOG_DAEMON | line.priority, "%.*s", static_cast<int>(line.length - PrefixLength - 1),
           line.text.data() + PrefixLength);
}

__attribute__((format(printf, 2, 3))) void writeText(int priority, const char* pFormat, ...)
{
    va_list arguments;
    va_start(arguments, pFormat);
    const Line line(priority, pFormat, arguments);
    va_end(arguments);
    writeLine(line);
}

/// The lines that wait for the log's thread.
class Queue {
public:
    void put(const Line& line)
    {
        const std::lock_guard lock(m_mutex);
        if (m_count == m_lines.size()) {
            ++m_leftOut;
            return;
        }
        Line& free = m_lines[(m_first + m_count++) % m_lines.size()];
        copy(line, free);
        free.leftOut = std::exchange(m_leftOut, 0);
        m_news.notify_one();
    }

    /// Whether all was written in that time.
    bool flush(std::chrono::milliseconds atMost)
    {
        std::unique_lock lock(m_mutex);
        return m_quiet.wait_for(lock, atMost, [this] { return !m_writing && nothingToSay(); });
    }

    /// Whether the thread is to end when all is written.
    void setFinishing(bool finishing)
    {
        const std::lock_guard lock(m_mutex);
        m_finishing = finishing;
        m_news.notify_one();
    }

    /// The thread's whole life.
    void writeAll()
    {
        std::unique_lock lock(m_mutex);
        for (;;) {
            m_quiet.notify_all();
            m_news.wait(lock, [this] { return m_finishing || !nothingToSay(); });
            if (nothingToSay())
                return;
            const bool isLine = m_count > 0;
            const size_t leftOut = std::exchange(isLine ? m_lines[m_first].leftOut : m_leftOut, 0);
            if (isLine)
                takeFirst();
            m_writing = true;
            lock.unlock();
            if (leftOut > 0)
                writeText(LOG_WARNING, "log lines left out here because nobody took them in time: %zu", leftOut);
            if (isLine)
                writeLine(m_taken);
            lock.lock();
            m_writing = false;
        }
    }

private:
    bool nothingToSay() const { return m_count == 0 && m_leftOut == 0; }

    void takeFirst()
    {
        copy(m_lines[m_first], m_taken);
        m_first = --m_count == 0 ? 0 : (m_first + 1) % m_lines.size(); // few lines touch little memory
    }

    static void copy(const Line& from, Line& to)
    {
        to.priority = from.priority;
        to.length = from.length;
        std::memcpy(to.text.data(), from.text.data(), from.length);
    }

    std::mutex m_mutex; // guards what follows but m_taken, which is the thread's own
    std::condition_variable m_news;
    std::condition_variable m_quiet;
    std::array<Line, QueuedLines> m_lines;
    size_t m_first = 0;
    size_t m_count = 0;
    size_t m_leftOut = 0; // since the last line that found room
    bool m_writing = false;
    bool m_finishing = false;
    Line m_taken;
};

/// Who writes the lines.
enum class Writer { Caller, Thread, Nobody };
std::atomic<Writer> g_writer = Writer::Caller;

Queue* g_pQueue = nullptr; // never destroyed: a thread that hangs in the end may come back to it

void hand(const Line& line)
{
    switch (g_writer.load()) {
    case Writer::Caller:
        writeLine(line);
        break;
    case Writer::Thread:
        g_pQueue->put(line);
        break;
    case Writer::Nobody:
        break;
    }
}

/// What the common code has to say, errors included, is about messages that it cannot read: anybody can send these by
/// the thousand, and only a programmer wants to know.
__attribute__((format(printf, 2, 3))) void logFromCommon(int, const char* pFormat, ...)
{
    if (debugLevel() == 0)
        return;
    va_list arguments;
    va_start(arguments, pFormat);
    hand(Line(LOG_DEBUG, pFormat, arguments));
    va_end(arguments);
}

} // namespace

void openLog()
{
    openlog("obregd", LOG_PID, LOG_DAEMON);
    ipcLog = logFromCommon;
    g_standardError = !systemd::standardErrorIsJournal();
}

void logLine(int priority, const char* pFormat, ...)
{
    if (priority == LOG_DEBUG && debugLevel() == 0)
        return;
    va_list arguments;
    va_start(arguments, pFormat);
    hand(Line(priority, pFormat, arguments));
    va_end(arguments);
}

void flushLog(std::chrono::milliseconds atMost)
{
    if (g_writer == Writer::Thread)
        g_pQueue->flush(atMost);
}

LogThread::LogThread()
{
    try {
        if (g_pQueue == nullptr)
            g_pQueue = new Queue;
        g_pQueue->setFinishing(false);
        m_thread = std::thread([] { g_pQueue->writeAll(); });
        g_writer = Writer::Thread;
    } catch (const std::exception& failure) {
        logLine(LOG_WARNING, "no thread for the log: %s; a log that nobody takes will hold up the daemon",
                failure.what());
    }
}

LogThread::~LogThread()
{
    if (!m_thread.joinable())
        return;
    const bool written = g_pQueue->flush(LastTime);
    g_writer = written ? Writer::Caller : Writer::Nobody;
    g_pQueue->setFinishing(true);
    if (written)
        m_thread.join();
    else
        m_thread.detach();
}

} // namespace obregd
