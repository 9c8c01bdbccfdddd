// How the tool ends: exit statuses, and the exceptions that lead to them.
//
// A failure carries what was wrong, where (a key, perhaps a value) and what to do next; app.cpp prints it once, as text
// or as JSON. Stateless; any thread may throw.
#ifndef OBREG_TOOL_ERRORS_H
#define OBREG_TOOL_ERRORS_H

#include <stdexcept>
#include <string>
#include <system_error>
#include <variant>
#include <vector>

#include "keypath.h"

namespace obregtool {

enum Exit : int {
    ExitDone = 0,
    ExitNotFound = 1,  ///< not found; of a comparison: different
    ExitUsage = 2,     ///< the command line, or a question that could not be asked
    ExitNoDaemon = 3,  ///< no daemon, or no answer in time
    ExitFailed = 4,    ///< refused or failed
    ExitBadFile = 5,   ///< a file is not what it should be; nothing was done
    ExitCondition = 6, ///< a condition did not hold; nothing was done
    ExitTimeUp = 7,    ///< what was waited for did not come in time
    ExitDifferent = ExitNotFound,
    ExitInterrupted = 130, ///< by Ctrl-C, as shells count signals
};

/// The command line asks for something that cannot be.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// A figure of a failure, for JSON; its text says the same.
struct Detail {
    const char* pName;
    std::variant<uint64_t, std::string, std::vector<uint64_t>, std::vector<std::string>> data;
};

/// Something did not work.
struct Failure : std::runtime_error {
    Failure(Exit exitStatus, const std::string& what, std::string toDo = {})
        : std::runtime_error(what), exit(exitStatus), advice(std::move(toDo))
    {}

    Exit exit;
    std::string advice; ///< what to do next; may be empty
    std::string key;    ///< the key it is about; may be empty
    REGSTATUS status = 0;
    std::vector<Detail> details;

    void addAdvice(const std::string& more) { advice += (advice.empty() ? "" : "; ") + more; }
};

/// A key, or a value of it when pValueName is not null, as messages name it.
std::string subjectText(const KeyPath& key, const std::string* pValueName = nullptr);

/// The failure that a status means for a key, or for a value of it when pValueName is not null. dataLength: of the data
/// that was sent.
Failure failureOf(const KeyPath& key, const std::string* pValueName, const std::error_code& error,
                  size_t dataLength = 0);

/// Throws it when there is an error.
void check(const std::error_code& error, const KeyPath& key, const std::string* pValueName = nullptr,
           size_t dataLength = 0);

/// What errno says, for a file.
Failure fileFailure(const std::string& file, int errorNumber);

} // namespace obregtool

#endif
