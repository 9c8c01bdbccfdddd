#include "support/log_capture.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <utility>

#include <syslog.h>

#include "common/ipcint.h"

namespace {

std::mutex mutex;
// Never destroyed: the library logs while the process exits.
std::vector<std::string>& lines = *new std::vector<std::string>;

} // namespace

extern "C" void syslog(int priority, const char* format, ...) // NOLINT
{
    char text[512];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    const std::lock_guard<std::mutex> lock(mutex);
    lines.push_back(std::to_string(priority) + " " + text);
}

std::vector<std::string> logcapture::take()
{
    const std::lock_guard<std::mutex> lock(mutex);
    return std::exchange(lines, {});
}

bool logcapture::contains(const std::string& text)
{
    const std::lock_guard<std::mutex> lock(mutex);
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string& line) { return line.find(text) != std::string::npos; });
}

void logcapture::setDebugLevel(int level) { __atomic_store_n(&CDebugLevel, level, __ATOMIC_RELAXED); }
