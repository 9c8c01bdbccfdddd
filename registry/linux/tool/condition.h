// Conditions: whether what a transaction requires is so at this moment, and the verbs' options for one value.
//
// Here they are looked at to say what is otherwise; whether a change is made the daemon decides. Any thread.
#ifndef OBREG_TOOL_CONDITION_H
#define OBREG_TOOL_CONDITION_H

#include <functional>
#include <string>
#include <vector>

#include "arguments.h"
#include "errors.h"
#include "regtext/regreader.h"

namespace obregtool {

// Why a condition does not hold, as it goes behind the name of the key or value; "" when it does. Throw Failure.
std::string whyNoKey(const KeyPath& key);
std::string whyKey(const KeyPath& key);
std::string whyNotEqual(const KeyPath& key, const std::string& name, const obreg::Value& expected);
std::string whyNotAbsent(const KeyPath& key, const std::string& name);
std::string whyChanged(const KeyPath& key, uint64_t since);

/// Of a condition that does not hold, for those reasons.
Failure conditionFailure(const KeyPath& key, const std::string* pValueName, const std::string& why);

/// What a value has to be for a change of it to be made.
struct ValueCondition {
    std::vector<std::string> equals; ///< as set takes data, or as get prints it
    bool absent = false;

    bool given() const { return absent || !equals.empty(); }
    /// Tells a sink what the daemon has to find for the value to be so. Throws the Failure when it is not so now.
    void tell(const KeyPath& key, const std::string& name, RegSink& sink) const;
};

void addIfEquals(Arguments& arguments, ValueCondition& condition);
void addIfAbsent(Arguments& arguments, ValueCondition& condition);

/// Has the daemon make changes, which begin with what a ValueCondition tells, as one; anew when a condition that held
/// when it was looked at did not hold any more. Throws Failure.
void makeAsOne(const std::function<void(RegSink&)>& changes);

} // namespace obregtool

#endif
