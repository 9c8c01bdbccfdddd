// A transaction as it was asked for: .reg text (docs/reg-format.md) made into a list of steps, which are carried out
// whole or not at all (carryout.h).
//
// A client sets a value of HKEY_DYN_DATA\Transactions, whose name is his token and whose data the text. Reading the
// text takes time, so that it is done by neither the thread that serves everybody nor the one that writes. A plan does
// not change once it is made; any thread.
#ifndef OBREG_DAEMON_PLAN_H
#define OBREG_DAEMON_PLAN_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "daemon/outcomes.h"
#include "regtext/regreader.h"

namespace obregd {

/// One statement.
struct Step {
    enum Kind {
        MakeKey,
        RemoveKey,
        SetValue,
        RemoveValue,
        RequireKey,
        RequireNoKey,
        RequireValue,
        RequireNoValue,
        RequireUnchanged
    };
    Kind kind;
    regtext::Place place;
    HANDLE root = nullptr;   ///< of a key
    std::string name;        ///< the path of a key, or a value's name; the value is the last key's before it
    obreg::Value value = {}; ///< to be set, or required
    uint64_t since = 0;      ///< of RequireUnchanged: a change's number

    bool isOfKey() const { return kind == MakeKey || kind == RemoveKey || kind == RequireKey || kind == RequireNoKey; }
    bool isOfValue() const { return !isOfKey() && kind != RequireUnchanged; }
    bool isCondition() const { return kind >= RequireKey; }
};

struct Plan {
    std::string token;
    int64_t hash; ///< of the text
    std::vector<Step> steps;
    size_t mostSteps;  ///< with the keys and values of sub-trees that are deleted
    bool frees = true; ///< takes away and adds nothing
    size_t bytes = 0;  ///< that the plan takes, about
};

/// How many statements a transaction may have, unless an option says so; root's may have ten times as many.
inline constexpr size_t DefaultMaxStatements = 10'000;
inline constexpr size_t TrustedFactor = 10;
/// Its keys' paths may have so many names for each of them.
inline constexpr size_t NamesPerStatement = 4;
/// The values that it replaces or deletes may have so many bytes for each of them.
inline constexpr size_t GivenBackPerStatement = 4096;
/// Its text may have so many bytes for each of them.
inline constexpr size_t BytesPerStatement = 512;

/// A hash that two texts do not share by chance.
int64_t hashOf(std::string_view text);

/// The steps of a text. Throws Refused.
std::vector<Step> readSteps(std::string_view text, size_t mostSteps);

/// The plan of a transaction. Throws Refused.
Plan makePlan(const std::string& token, std::string_view text, size_t mostSteps);

/// What a message calls a key, or a value of it.
std::string subjectOf(const Step& key, const Step* pValue = nullptr);

} // namespace obregd

#endif
