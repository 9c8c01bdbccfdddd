#include "caution.h"

#include "alarm.h"
#include "backup.h"
#include "errors.h"
#include "preview.h"
#include "text.h"

namespace obregtool {

void addDryRun(Arguments& arguments, Caution& caution)
{
    arguments.flag("--dry-run", caution.dryRun,
                   "Print what would change, with names and rights checked; write nothing");
}

void addDryRunAndBackup(Arguments& arguments, Caution& caution)
{
    addDryRun(arguments, caution);
    arguments.text("--backup", caution.backup, "First write a .reg file of what is replaced; importing it undoes this");
    arguments.flag("--force", caution.force, "Replace the file of --backup if it exists");
}

namespace {

void makeBackup(const Caution& caution, const Changes& changes)
{
    Backup backup(caution.backup, caution.force);
    try {
        changes(backup);
        endIfInterrupted();
    } catch (Failure& failure) {
        failure.addAdvice("no backup was made and nothing was changed");
        throw;
    }
    backup.commit();
}

} // namespace

bool prepare(const Caution& caution, Rehearsal::Missing missing, const Changes& changes, Output& output)
{
    Rehearsal rehearsal(missing);
    if (caution.dryRun) {
        Preview preview(rehearsal, output);
        changes(preview);
        preview.finish();
        if (const uint64_t failed = preview.failedConditions(); failed != 0) {
            output.finish();
            throw Failure(ExitCondition, std::to_string(failed) + (failed == 1 ? " condition does" : " conditions do") +
                                             " not hold: as it is, nothing would be changed");
        }
        return false;
    }
    if (!caution.backup.empty()) {
        changes(rehearsal);
        makeBackup(caution, changes);
    }
    return true;
}

void carryOut(const Caution& caution, const std::function<void()>& make)
{
    try {
        make();
    } catch (Failure& failure) {
        if (!caution.backup.empty())
            failure.addAdvice("\"obreg import " + shellQuoted(caution.backup) + "\" brings back what was there");
        throw;
    }
}

} // namespace obregtool
