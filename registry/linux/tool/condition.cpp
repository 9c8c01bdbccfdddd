#include "condition.h"

#include <optional>

#include <obreg/watch.hpp>

#include "batch.h"
#include "readtree.h"
#include "text.h"
#include "valuetext.h"

namespace obregtool {

namespace {

constexpr const char* IsThere = "is there";
constexpr const char* IsNotThere = "is not there";
constexpr int MostTries = 100; // of what others keep changing to and fro

bool isKey(const KeyPath& key)
{
    std::error_code error;
    const obreg::Key opened = openKey(key, KEY_READ, error);
    if (!error)
        opened.info(error); // a root by its handle is not asked for
    if (error == obreg::Status::notFound || error == obreg::Status::keyDeleted)
        return false;
    check(error, key);
    return true;
}

std::string isInstead(const obreg::Value& value)
{
    constexpr size_t longest = 100;
    const std::string data = value.data.size() <= longest ? shownData(value) : "";
    return "is " + typeName(value.type) +
           (data.empty() ? " of " + std::to_string(value.data.size()) + " bytes" : ' ' + data);
}

bool isWritten(const obreg::Value& value, const std::vector<std::string>& words)
{
    std::string bare;
    writeBare(value, [&bare](std::string_view piece) { bare += piece; });
    if (words.size() == 1 && words.front() == bare)
        return true;
    try {
        return valueOfArguments(value.type, words) == value;
    } catch (const UsageError&) {
        return false; // it is no data of this type
    }
}

} // namespace

std::string whyNoKey(const KeyPath& key) { return isKey(key) ? "" : IsNotThere; }

std::string whyKey(const KeyPath& key) { return isKey(key) ? IsThere : ""; }

std::string whyNotEqual(const KeyPath& key, const std::string& name, const obreg::Value& expected)
{
    const std::optional<obreg::Value> now = findValue(key, name);
    return !now ? IsNotThere : *now == expected ? "" : isInstead(*now);
}

std::string whyNotAbsent(const KeyPath& key, const std::string& name) { return findValue(key, name) ? IsThere : ""; }

std::string whyChanged(const KeyPath& key, uint64_t since)
{
    std::error_code error;
    const obreg::Key opened = openKey(key, KEY_READ, error);
    obreg::Watch watch = error ? obreg::Watch() : obreg::Watch::start(opened, obreg::Watch::Scope::tree, since, error);
    const obreg::Changes changes = error ? obreg::Changes() : watch.next(std::chrono::milliseconds(0), error);
    check(error, key);
    const std::string number = std::to_string(since);
    return changes.lost              ? "may have changed after change " + number + ", which is too long ago to tell"
           : changes.changes.empty() ? ""
                                     : "has changed after change " + number;
}

Failure conditionFailure(const KeyPath& key, const std::string* pValueName, const std::string& why)
{
    Failure failure(ExitCondition, subjectText(key, pValueName) + ": " + why, "nothing was changed");
    failure.key = key.text();
    failure.status = OBREG_STATUS_CONDITION_FAILED;
    return failure;
}

void ValueCondition::tell(const KeyPath& key, const std::string& name, RegSink& sink) const
{
    std::optional<obreg::Value> now = findValue(key, name);
    if (now && absent)
        throw conditionFailure(key, &name, IsThere);
    if (!now && !absent)
        throw conditionFailure(key, &name, IsNotThere);
    if (now && !isWritten(*now, equals))
        throw conditionFailure(key, &name, isInstead(*now));
    if (!now && !isKey(key)) {
        sink.requireNoKey(key, {});
        return;
    }
    sink.requireKey(key, {});
    if (now)
        sink.requireValue(std::string(name), *std::move(now), {});
    else
        sink.requireNoValue(std::string(name), {});
}

void addIfEquals(Arguments& arguments, ValueCondition& condition)
{
    arguments.texts("--if-equals", condition.equals,
                    "Only while the value is this, written as set takes it or get prints it; several for REG_MULTI_SZ");
}

void addIfAbsent(Arguments& arguments, ValueCondition& condition)
{
    arguments.flag("--if-absent", condition.absent, "Only while there is no such value", "--if-equals");
}

void makeAsOne(const std::function<void(RegSink&)>& changes)
{
    for (int left = MostTries;; --left) {
        Batch batch;
        changes(batch);
        try {
            batch.commit();
            return;
        } catch (const BatchFailure& failure) {
            if (failure.asOne && failure.status == 0)
                throw noTransactions("a condition needs one; nothing was changed");
            if (failure.status != OBREG_STATUS_CONDITION_FAILED || left == 1)
                throw;
            // It was changed since it was looked at: the changes look again, and may find that they hold.
        }
    }
}

} // namespace obregtool
