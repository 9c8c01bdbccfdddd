#include "errors.h"

#include <cstring>

#include "text.h"

namespace obregtool {

namespace {

constexpr const char* StartDaemon = "is obregd running? \"systemctl start obregd\" starts it; its log tells more";

const struct Advice {
    REGSTATUS status;
    Exit exit;
    const char* pAdvice; // %k: the key, quoted for the shell; %p: one above it that is there
} Advices[] = {
    {OBREG_STATUS_NOT_FOUND, ExitNotFound, "\"obreg ls %p\" lists what is there"},
    {OBREG_STATUS_KEY_DELETED, ExitNotFound, "somebody else has deleted it meanwhile; run this again"},
    {OBREG_STATUS_REQUEST_FAILED, ExitNoDaemon, StartDaemon},
    {OBREG_STATUS_ACCESS_DENIED, ExitFailed, "run this as the user that the tree belongs to, or as root"},
    {OBREG_STATUS_KEY_HAS_SUBKEYS, ExitFailed, "\"obreg delete %k\" deletes it with all below it"},
    {OBREG_STATUS_BAD_NAME, ExitFailed, "use names of 1 to 255 bytes without control characters"},
    {OBREG_STATUS_INVALID_PARAMETER, ExitFailed, "give at least one byte of data: an empty value cannot be stored"},
    {OBREG_STATUS_TOO_LARGE, ExitFailed, "keep data of this size in a file, and its path in the registry"},
    {OBREG_STATUS_QUOTA_EXCEEDED, ExitFailed, "delete what is not needed from this user's tree"},
    {OBREG_STATUS_STORE_FULL, ExitFailed, "make room on the daemon's disk"},
    {OBREG_STATUS_STORE_FAILED, ExitFailed, "the daemon's log says how: \"journalctl -u obregd\""},
};

/// A request of which the daemon cannot complain. It tells a daemon that is away from one that refused the last request
/// by ending the connection.
bool daemonAnswers()
{
    std::error_code error;
    obreg::localMachine().info(error);
    return error != obreg::Status::requestFailed;
}

/// The lowest key above this one that is there.
KeyPath nearest(const KeyPath& key)
{
    KeyPath above = key.parent();
    std::error_code error;
    while (!above.isRoot() && !above.open(KEY_READ, error))
        above = above.parent();
    return above;
}

std::string fillIn(const char* pAdvice, const std::string& key, const std::string& parent)
{
    std::string text;
    for (const char* p = pAdvice; *p != '\0'; ++p) {
        if (*p == '%')
            text += shellQuoted(*++p == 'k' ? key : parent);
        else
            text += *p;
    }
    return text;
}

} // namespace

std::string subjectText(const KeyPath& key, const std::string* pValueName)
{
    std::string text = escaped(key.text(), Escape::Name);
    if (pValueName != nullptr)
        text += ", value " + (isUnnamed(*pValueName) ? "@" : '"' + escaped(*pValueName, Escape::Name) + '"');
    return text;
}

Failure failureOf(const KeyPath& key, const std::string* pValueName, const std::error_code& error)
{
    const auto status = static_cast<REGSTATUS>(error.value());
    Failure failure(ExitFailed, subjectText(key, pValueName) + ": " + error.message());
    failure.key = key.text();
    failure.status = status;
    for (const Advice& advice : Advices)
        if (advice.status == status) {
            failure.exit = advice.exit;
            failure.advice = fillIn(advice.pAdvice, key.text(), (pValueName ? key : nearest(key)).text());
        }
    if (status == OBREG_STATUS_ACCESS_DENIED && key.root == HKEY_PERFORMANCE_DATA)
        failure.advice = "the daemon's own figures can only be read";
    if (failure.exit == ExitNoDaemon && daemonAnswers()) {
        failure.exit = ExitFailed;
        failure.advice = "the daemon is there but ended the connection: is the data longer than it takes "
                         "(obregd --max-payload)?";
    }
    return failure;
}

void check(const std::error_code& error, const KeyPath& key, const std::string* pValueName)
{
    if (error)
        throw failureOf(key, pValueName, error);
}

Failure fileFailure(const std::string& file, int errorNumber)
{
    return {ExitFailed, file + ": " + std::strerror(errorNumber), "check the path and its permissions"};
}

} // namespace obregtool
