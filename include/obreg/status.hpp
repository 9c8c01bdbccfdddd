// status.hpp - the statuses of <obreg/obreg.h> and <obreg/roots.h> as C++ error codes. Part of <obreg/registry.hpp>.
//
// Stateless; any thread.
#ifndef OBREG_STATUS_HPP
#define OBREG_STATUS_HPP

#include <cstddef>
#include <string>
#include <system_error>
#include <type_traits>

#include <obreg/obreg.h>
#include <obreg/roots.h>

namespace obreg {

/// What each status is called and means; `statusText` finds it.
struct StatusText {
    REGSTATUS status;
    const char* name;
    const char* sentence;
};

inline constexpr StatusText statusTexts[] = {
    {OBREG_STATUS_SUCCESS, "SUCCESS", "done"},
    {OBREG_STATUS_REQUEST_FAILED, "REQUEST_FAILED", "the registry daemon cannot be reached or did not answer properly"},
    {OBREG_STATUS_INVALID_PARAMETER, "INVALID_PARAMETER", "an argument is missing or out of range"},
    {OBREG_STATUS_BUFFER_TOO_SMALL, "BUFFER_TOO_SMALL", "the buffer is too small"},
    {OBREG_STATUS_NOT_FOUND, "NOT_FOUND", "there is no such key or value"},
    {OBREG_STATUS_ACCESS_DENIED, "ACCESS_DENIED", "this user may not do that"},
    {OBREG_STATUS_BAD_HANDLE, "BAD_HANDLE", "the handle never named a key"},
    {OBREG_STATUS_STORE_FULL, "STORE_FULL", "the registry's store is full"},
    {OBREG_STATUS_BAD_NAME, "BAD_NAME", "the name is empty, too long or has characters that a name cannot have"},
    {OBREG_STATUS_TOO_LARGE, "TOO_LARGE", "the data is too large"},
    {OBREG_STATUS_NO_MORE_ENTRIES, "NO_MORE_ENTRIES", "there are no more entries"},
    {OBREG_STATUS_KEY_DELETED, "KEY_DELETED", "the key has been deleted"},
    {OBREG_STATUS_KEY_HAS_SUBKEYS, "KEY_HAS_SUBKEYS", "the key has sub-keys"},
    {OBREG_STATUS_STORE_FAILED, "STORE_FAILED", "the registry's store failed; the daemon's log says how"},
    {OBREG_STATUS_TOO_MANY_WATCHES, "TOO_MANY_WATCHES", "this user's programs wait for as many changes as they may"},
    {OBREG_STATUS_TOKEN_USED, "TOKEN_USED", "the token was used for another transaction"},
    {OBREG_STATUS_CONDITION_FAILED, "CONDITION_FAILED", "a condition of the transaction does not hold"},
    {OBREG_STATUS_BAD_TRANSACTION, "BAD_TRANSACTION", "the text of the transaction cannot be read"},
    {OBREG_STATUS_ENGINE_AWAY, "ENGINE_AWAY", "the engine that shares this tree among machines gave no answer in time"},
    {OBREG_STATUS_QUOTA_EXCEEDED, "QUOTA_EXCEEDED", "what this user's tree may take is used up"},
};

/// The name and sentence of a status, or null for one that is not known here.
inline const StatusText* statusText(REGSTATUS status)
{
    for (const StatusText& text : statusTexts)
        if (text.status == status)
            return &text;
    return nullptr;
}

/// The category of every error here. A code's value is its REGSTATUS; message() is "sentence (NAME, C7F20002)".
inline const std::error_category& category()
{
    struct Category final : std::error_category {
        const char* name() const noexcept override { return "obreg"; }
        std::string message(int value) const override
        {
            static constexpr char digits[] = "0123456789ABCDEF";
            const auto status = static_cast<REGSTATUS>(value);
            std::string hex(8, '0');
            for (size_t i = 0; i < hex.size(); ++i)
                hex[i] = digits[status >> (28 - 4 * i) & 15];
            const StatusText* const pText = statusText(status);
            if (pText == nullptr)
                return "the registry daemon answered with status " + hex;
            return std::string(pText->sentence) + " (" + pText->name + ", " + hex + ")";
        }
    };
    static const Category instance;
    return instance;
}

/// The statuses as an error enumeration: `if (error == Status::notFound)`.
enum class Status : REGSTATUS {
    requestFailed = OBREG_STATUS_REQUEST_FAILED,
    invalidParameter = OBREG_STATUS_INVALID_PARAMETER,
    bufferTooSmall = OBREG_STATUS_BUFFER_TOO_SMALL,
    notFound = OBREG_STATUS_NOT_FOUND,
    accessDenied = OBREG_STATUS_ACCESS_DENIED,
    badHandle = OBREG_STATUS_BAD_HANDLE,
    storeFull = OBREG_STATUS_STORE_FULL,
    badName = OBREG_STATUS_BAD_NAME,
    tooLarge = OBREG_STATUS_TOO_LARGE,
    noMoreEntries = OBREG_STATUS_NO_MORE_ENTRIES,
    keyDeleted = OBREG_STATUS_KEY_DELETED,
    keyHasSubKeys = OBREG_STATUS_KEY_HAS_SUBKEYS,
    storeFailed = OBREG_STATUS_STORE_FAILED,
    tooManyWatches = OBREG_STATUS_TOO_MANY_WATCHES,
    tokenUsed = OBREG_STATUS_TOKEN_USED,
    conditionFailed = OBREG_STATUS_CONDITION_FAILED,
    badTransaction = OBREG_STATUS_BAD_TRANSACTION,
    quotaExceeded = OBREG_STATUS_QUOTA_EXCEEDED,
};

inline std::error_code errorCode(REGSTATUS status) { return {static_cast<int>(status), category()}; }
inline std::error_code make_error_code(Status status) { return errorCode(static_cast<REGSTATUS>(status)); }

} // namespace obreg

template <>
struct std::is_error_code_enum<obreg::Status> : std::true_type {};

namespace obreg::detail {

/// Runs the error_code form of an operation and throws what it reports, named after `what`.
template <class Operation>
auto throwing(const std::string& what, Operation operation)
{
    struct Throw {
        const std::string& m_what;
        std::error_code m_error;
        void check() const
        {
            if (m_error)
                throw std::system_error(m_error, m_what);
        }
    } outcome{what, {}};
    if constexpr (std::is_void_v<decltype(operation(outcome.m_error))>) {
        operation(outcome.m_error);
        outcome.check();
    } else {
        auto result = operation(outcome.m_error);
        outcome.check();
        return result;
    }
}

} // namespace obreg::detail

#endif
