#include "errors.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unistd.h>

#include "text.h"

namespace obregtool {

namespace {

/// In an advice %k is the key, quoted for the shell, %p one above it that is there, %s how the daemon is started, %l
/// where its log is.
const struct Advice {
    REGSTATUS status;
    Exit exit;
    const char* pAdvice;
    const char* pOfValue = nullptr; ///< when it is about a value and not about a key
} Advices[] = {
    {OBREG_STATUS_NOT_FOUND, ExitNotFound, "\"obreg ls %p\" lists what is there"},
    {OBREG_STATUS_KEY_DELETED, ExitNotFound, "somebody else has deleted it meanwhile; run this again"},
    {OBREG_STATUS_REQUEST_FAILED, ExitNoDaemon, "is obregd running? %s; %l tells more"},
    {OBREG_STATUS_ACCESS_DENIED, ExitFailed, "only root and the daemon's own user write there; run this as root"},
    {OBREG_STATUS_BAD_HANDLE, ExitFailed, "the store has been replaced meanwhile; run this again"},
    {OBREG_STATUS_KEY_HAS_SUBKEYS, ExitFailed, "\"obreg delete %k\" deletes it with all below it"},
    {OBREG_STATUS_BAD_NAME, ExitFailed, "a key's name has 1 to 1024 bytes and no control characters, a path 512 names",
     "a value's name has up to 16383 bytes and no control characters"},
    {OBREG_STATUS_INVALID_PARAMETER, ExitFailed, "a name holds no NUL",
     "give at least one byte of data: an empty value cannot be stored; and no NUL in the name"},
    {OBREG_STATUS_TOO_LARGE, ExitFailed, "keep data of this size in a file, and its path in the registry"},
    {OBREG_STATUS_QUOTA_EXCEEDED, ExitFailed,
     "delete what this user's tree does not need (obregd --quota-bytes, --quota-keys), or ask less often "
     "(--quota-requests)"},
    {OBREG_STATUS_TOO_MANY_WATCHES, ExitFailed, "end some of them, or let a user have more (obregd --quota-watches)"},
    {OBREG_STATUS_ENGINE_AWAY, ExitFailed,
     "\"obreg shared status\" tells what the engine is doing; it may still be done: look before you try again"},
    {OBREG_STATUS_STORE_FULL, ExitFailed, "make room on the daemon's disk, or delete keys and values"},
    {OBREG_STATUS_STORE_FAILED, ExitFailed, "%l tells how"},
    {OBREG_STATUS_CONDITION_FAILED, ExitCondition, "nothing was changed; look at what is there now"},
};

constexpr const char* DaemonWasAway =
    "the daemon is there now, but was not, or ended the connection; run this again; %l tells why";
constexpr const char* DaemonRefusedData =
    "the daemon is there but ended the connection: is the data longer than it takes (obregd --max-payload)? %l tells";
constexpr size_t LeastMaxPayload = 1024; // that the daemon can be told

constexpr const char* AnyFileAdvice = "check the path and its permissions";
const struct {
    int error;
    const char* pAdvice;
} FileAdvices[] = {
    {EBADF, "it is closed, or not open for this; redirect it, to /dev/null if nobody is to have it"},
    {ENOSPC, "make room on that disk"},
    {EDQUOT, "make room in what this user may store there"},
    {EFBIG, "raise the limit on the size of files (ulimit -f)"},
    {EISDIR, "give a file and not a folder"},
    {EMFILE, "raise the limit on open files (ulimit -n)"},
    {ENOENT, "check the path"},
    {EROFS, "choose a place that can be written to"},
};

/// Whether systemd runs here and has the daemon's service: not where the daemon is only tried out.
bool systemdHasDaemon()
{
    if (access("/run/systemd/system", F_OK) != 0)
        return false;
    constexpr const char* folders[] = {"/etc", "/run", "/usr/local/lib", "/usr/lib", "/lib"};
    return std::any_of(std::begin(folders), std::end(folders), [](const char* pFolder) {
        return access((std::string(pFolder) + "/systemd/system/obregd.service").c_str(), F_OK) == 0;
    });
}

const char* howToStart()
{
    return systemdHasDaemon() ? "\"systemctl start obregd\" starts it" : "as root, \"obregd &\" starts it";
}

const char* whereLogIs()
{
    return systemdHasDaemon() ? "\"journalctl -u obregd\"" : "its log, on its standard error and in syslog,";
}

/// A request of which the daemon cannot complain. It tells a daemon that is away from one that was, or that ended the
/// connection.
bool daemonAnswers()
{
    std::error_code error;
    obreg::localMachine().info(error);
    return error != obreg::Status::requestFailed;
}

/// Whether the daemon, since it started, has ended a connection because of what came over it; true for one that does
/// not tell.
bool hasCutOff()
{
    std::error_code error;
    const obreg::Key clients = obreg::Key::open(obreg::performanceData(), "Clients", KEY_READ, error);
    const auto count = error ? 0 : clients.get<UINT64>("CutOff", error);
    return error || count > 0;
}

/// The lowest key above this one that is there.
KeyPath nearest(const KeyPath& key)
{
    KeyPath above = key.parent();
    std::error_code error;
    while (!above.isRoot() && !openKey(above, KEY_READ, error))
        above = above.parent();
    return above;
}

std::string fillIn(const char* pAdvice, const KeyPath& key, bool isValue)
{
    std::string text;
    for (const char* p = pAdvice; *p != '\0'; ++p) {
        if (*p != '%') {
            text += *p;
            continue;
        }
        switch (*++p) {
        case 'k':
            text += shellQuoted(key.text());
            break;
        case 'p':
            text += shellQuoted((isValue ? key : nearest(key)).text());
            break;
        case 's':
            text += howToStart();
            break;
        default:
            text += whereLogIs();
        }
    }
    return text;
}

/// Who may write in the tree of a key.
const char* whoMayWrite(const KeyPath& key, const char* pOthers)
{
    if (key.root == HKEY_PERFORMANCE_DATA)
        return "the daemon's own figures can only be read";
    const bool isUsers =
        key.root == HKEY_CURRENT_USER || (key.root == HKEY_USERS && key.path[0] >= '0' && key.path[0] <= '9');
    return isUsers ? "run this as the user that the tree belongs to, or as root" : pOthers;
}

} // namespace

std::string subjectText(const KeyPath& key, const std::string* pValueName)
{
    std::string text = escaped(key.text(), Escape::Name);
    if (pValueName != nullptr)
        text += ", value " + (isUnnamed(*pValueName) ? "@" : '"' + escaped(*pValueName, Escape::Name) + '"');
    return text;
}

Failure failureOf(const KeyPath& key, const std::string* pValueName, const std::error_code& error, size_t dataLength)
{
    const auto status = static_cast<REGSTATUS>(error.value());
    Failure failure(ExitFailed, subjectText(key, pValueName) + ": " + error.message());
    failure.key = key.text();
    failure.status = status;
    const char* pAdvice = "";
    for (const Advice& advice : Advices)
        if (advice.status == status) {
            failure.exit = advice.exit;
            pAdvice = pValueName != nullptr && advice.pOfValue != nullptr ? advice.pOfValue : advice.pAdvice;
        }
    if (status == OBREG_STATUS_ACCESS_DENIED) {
        pAdvice = whoMayWrite(key, pAdvice);
    } else if (failure.exit == ExitNoDaemon && daemonAnswers()) {
        const bool refused = dataLength >= LeastMaxPayload && hasCutOff();
        failure.exit = refused ? ExitFailed : ExitNoDaemon;
        pAdvice = refused ? DaemonRefusedData : DaemonWasAway;
    }
    failure.advice = fillIn(pAdvice, key, pValueName != nullptr);
    return failure;
}

void check(const std::error_code& error, const KeyPath& key, const std::string* pValueName, size_t dataLength)
{
    if (error)
        throw failureOf(key, pValueName, error, dataLength);
}

Failure fileFailure(const std::string& file, int errorNumber)
{
    const char* pAdvice = AnyFileAdvice;
    for (const auto& advice : FileAdvices)
        if (advice.error == errorNumber)
            pAdvice = advice.pAdvice;
    return {ExitFailed, file + ": " + std::strerror(errorNumber), pAdvice};
}

} // namespace obregtool
