#include "daemon/log.h"

#include <array>
#include <cstdarg>
#include <cstdio>

#include "common/ipcint.h"
#include "daemon/systemd.h"

int CDebugLevel = 0;

namespace obregd {

namespace {

bool g_standardError = true;

}

void openLog()
{
    openlog("obregd", LOG_PID, LOG_DAEMON);
    g_standardError = !systemd::standardErrorIsJournal();
}

void logLine(int priority, const char* pFormat, ...)
{
    if (priority == LOG_DEBUG && debugLevel() == 0)
        return;
    std::array<char, 1024> text;
    va_list arguments;
    va_start(arguments, pFormat);
    std::vsnprintf(text.data(), text.size(), pFormat, arguments);
    va_end(arguments);
    if (g_standardError)
        std::fprintf(stderr, "obregd: %s\n", text.data());
    syslog(LOG_DAEMON | priority, "%s", text.data());
}

} // namespace obregd
