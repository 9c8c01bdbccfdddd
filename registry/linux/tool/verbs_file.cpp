// import and export: keys as .reg text. docs/reg-format.md describes the text.
#include <unistd.h>

#include "alarm.h"
#include "batch.h"
#include "caution.h"
#include "files.h"
#include "importer.h"
#include "readtree.h"
#include "regtext/regreader.h"
#include "regtext/regwriter.h"
#include "sieve.h"
#include "verbs.h"

namespace obregtool {

namespace {

struct FileOptions {
    std::string key;
    std::string file = "-";
    bool utf16 = false;
    bool regedit4 = false;
    bool utf16Data = false;
    bool yes = false;
    bool checkOnly = false;
    bool keepGoing = false;
    bool atomic = false;
    Caution caution;
};

/// Counts statements: the first pass, which finds the mistakes.
class Counter : public RegSink {
public:
    void key(const KeyPath& /*key*/, const Place& /*place*/) override { ++keys; }
    void removeKey(const KeyPath& /*key*/, const Place& /*place*/) override { ++deletions; }
    void value(std::string&& /*name*/, obreg::Value&& /*value*/, const Place& /*place*/) override { ++values; }
    void removeValue(std::string&& /*name*/, const Place& /*place*/) override { ++deletions; }
    void requireKey(const KeyPath& /*key*/, const Place& /*place*/) override { ++conditions; }
    void requireNoKey(const KeyPath& /*key*/, const Place& /*place*/) override { ++conditions; }
    void requireValue(std::string&& /*name*/, obreg::Value&& /*value*/, const Place& /*place*/) override
    {
        ++conditions;
    }
    void requireNoValue(std::string&& /*name*/, const Place& /*place*/) override { ++conditions; }
    void requireUnchanged(uint64_t /*since*/, const Place& /*place*/) override { ++conditions; }

    uint64_t all() const { return keys + values + deletions; }

    uint64_t keys = 0;
    uint64_t values = 0;
    uint64_t deletions = 0;
    uint64_t conditions = 0;
};

RegReader readFile(RereadableFile& file, RegSink& sink, const FileOptions& options)
{
    RegReader reader(sink, options.utf16Data, options.atomic ? RegKind::Transaction : RegKind::File);
    file.read([&reader](std::string_view bytes) {
        endIfInterrupted();
        reader.feed(bytes);
    });
    reader.finish();
    return reader;
}

/// Returns how many statements were refused.
uint64_t importFile(RereadableFile& file, const FileOptions& options, uint64_t total, Output& output)
{
    letInterruptsEndWork();
    Importer importer(file.name(), total, options.keepGoing ? WriteQueue::GoOn : WriteQueue::Stop, output);
    try {
        readFile(file, importer, options);
        importer.finish();
    } catch (const RegSyntaxError& error) {
        throw importer.end({ExitFailed, error.what(), "the file has changed while it was read"});
    } catch (const Failure& failure) {
        throw importer.end(failure);
    }
    return importer.refused();
}

void warnOfUtf16(const RereadableFile& file, const RegReader& reader, Output& output)
{
    if (const uint64_t count = reader.utf16Alike(); count != 0) {
        const uint64_t line = reader.firstUtf16Alike().line;
        output.warning(file.name() + ", line " + std::to_string(line) + ": " +
                           (count == 1 ? "a string is" : std::to_string(count) + " strings from here on are") +
                           " UTF-16 by the look of the bytes, which are taken as they stand; --utf16-data converts "
                           "them to UTF-8",
                       {{"file", file.name()}, {"line", line}, {"values", count}});
    }
}

Failure nothingWritten(Failure failure)
{
    failure.addAdvice("nothing was written");
    return failure;
}

/// The failure, with what an import says that has carried out nothing.
Failure beforeImporting(const Failure& failure, const std::string& file, uint64_t total)
{
    Failure located = nothingWritten(inFile(failure, file + ": ", ""));
    located.details = {{"file", file}, {"line", uint64_t{0}}, {"done", uint64_t{0}}, {"total", total}};
    return located;
}

/// Finds what the daemon would refuse, and does what else is wanted before the first write. False when nothing is to be
/// written.
bool prepareImport(RereadableFile& file, const FileOptions& options, uint64_t total, Sieve& sieve, Output& output)
{
    letInterruptsEndWork();
    constexpr auto passes = Rehearsal::Missing::Passes;
    const Changes changes = [&](RegSink& sink) {
        sieve.lookWith(sink);
        readFile(file, options.atomic ? sink : sieve, options);
    };
    try {
        if (!prepare(options.caution, passes, changes, output))
            return false;
        const bool findsInWriting = (options.keepGoing || options.atomic) && !options.checkOnly;
        if (options.caution.backup.empty() && !findsInWriting) {
            Rehearsal rehearsal(passes);
            changes(rehearsal);
        }
    } catch (const WriteFailure& failure) {
        throw nothingWritten(inLine(failure, file.name(), failure.line));
    } catch (const RegSyntaxError& error) {
        throw Failure(ExitBadFile, file.name() + ", " + error.what(),
                      "the file has changed while it was read; nothing was written");
    } catch (const Failure& failure) {
        if (failure.exit != ExitInterrupted)
            throw;
        throw beforeImporting(failure, file.name(), total);
    }
    return !options.checkOnly;
}

/// What became of a file that was to be imported as one transaction.
Failure asOneFailure(const BatchFailure& failure, const std::string& file, uint64_t total)
{
    const auto& [line, column] = failure.place;
    const bool isLine = line != 0;
    const std::string place =
        isLine ? ", line " + std::to_string(line) + ", column " + std::to_string(column) + ": " : ": ";
    const char* pAdvice = "nothing was written";
    if (failure.status == OBREG_STATUS_REQUEST_FAILED && !failure.asOne)
        pAdvice = "no answer came: it was carried out whole or not at all";
    else if (failure.status == OBREG_STATUS_TOO_LARGE)
        pAdvice = "nothing was written; divide the file into parts that belong together, have the daemon take more "
                  "(obregd --max-statements), or import it without --atomic";
    else if (failure.asOne && failure.status == 0)
        pAdvice = "nothing was written; without --atomic its statements are imported one by one";
    Failure located = inFile(failure, file + place, failure.status == OBREG_STATUS_CONDITION_FAILED ? "" : pAdvice);
    located.details = {{"file", file}, {"line", line}, {"column", uint64_t{column}}, {"total", total}};
    return located;
}

/// Carries out the whole file or nothing of it.
void importAsOne(RereadableFile& file, const FileOptions& options, uint64_t total)
{
    letInterruptsEndWork();
    Batch batch;
    try {
        readFile(file, batch, options);
        batch.commit();
    } catch (const BatchFailure& failure) {
        throw asOneFailure(failure, file.name(), total);
    } catch (const RegSyntaxError& error) {
        throw Failure(ExitBadFile, file.name() + ", " + error.what(),
                      "the file has changed while it was read; nothing was written");
    } catch (const Failure& failure) {
        throw beforeImporting(failure, file.name(), total);
    }
}

int import(const FileOptions& options, Output& output)
{
    RereadableFile file(options.file);
    Counter counter;
    try {
        warnOfUtf16(file, readFile(file, counter, options), output);
    } catch (const RegSyntaxError& error) {
        throw Failure(ExitBadFile, file.name() + ", " + error.what(),
                      "nothing was written; mend that line and try again");
    }
    const bool looksOnly = options.checkOnly || options.caution.dryRun;
    Sieve sieve(file.name(), options.keepGoing, looksOnly ? &output : nullptr); // else the importer tells
    uint64_t refused = 0;
    if (!prepareImport(file, options, counter.all(), sieve, output))
        refused = sieve.leftOut();
    else if (options.atomic)
        importAsOne(file, options, counter.all());
    else
        carryOut(options.caution, [&] { refused = importFile(file, options, counter.all(), output); });
    if (!options.caution.dryRun)
        output.summary({options.checkOnly ? "checked" : "imported",
                        {{"file", file.name()},
                         {"keys", counter.keys},
                         {"values", counter.values},
                         {"deletions", counter.deletions},
                         {"conditions", counter.conditions},
                         {"refused", refused}},
                        "",
                        Style::Normal,
                        true});
    return refused == 0 ? ExitDone : ExitFailed;
}

/// The failure, with how much had been written.
Failure afterExporting(const Failure& failure, const std::string& file, uint64_t keys, uint64_t values, bool stays)
{
    Failure located =
        inFile(failure, file + ": ",
               std::to_string(keys) + " keys and " + std::to_string(values) + " values had been written; " +
                   (stays ? "what was written stays" : "the file was not made or replaced"));
    located.details = {{"file", file}, {"keys", keys}, {"values", values}};
    return located;
}

int exportKey(const FileOptions& options, Output& output)
{
    const KeyPath path = keyArgument(options.key);
    const bool toStream = options.file == "-";
    const std::string shownFile = toStream ? "standard output" : options.file;
    if (toStream && output.form() == Form::Json)
        throw UsageError("export --json needs a FILE: the text itself would go where the JSON goes");
    if (!toStream && !options.yes && access(options.file.c_str(), F_OK) == 0 &&
        !confirmed(options.file + " exists. Replace it?"))
        throw Failure(ExitFailed, "nothing was exported");

    uint64_t keys = 0;
    uint64_t values = 0;
    const obreg::Key found = openKey(path); // before a file is made
    NewFile file(options.file);
    letInterruptsEndWork();
    const RegFormat format = options.utf16      ? RegFormat::Utf16
                             : options.regedit4 ? RegFormat::Regedit4
                                                : RegFormat::Utf8;
    RegWriter writer(
        format, [&file](std::string_view bytes) { file.write(bytes); }, options.utf16Data);
    try {
        Progress progress("exported", 0);
        walk(path, true, [&](const KeyPath& at, const obreg::Key& key, KeyContent& content, size_t /*depth*/) {
            writer.key(at.text());
            ++keys;
            forEachValue(key, at, content.values, [&](const obreg::NamedValue& value) {
                endIfInterrupted();
                writer.value(value.name, value.value);
                progress.update(++values);
            });
        });
    } catch (const Failure& failure) {
        if (failure.exit != ExitInterrupted)
            throw;
        throw afterExporting(failure, shownFile, keys, values, file.isWrittenDirectly());
    }
    writer.finish();
    file.commit();
    if (!toStream)
        output.summary({"exported",
                        {{"file", options.file}, {"key", path.text()}, {"keys", keys}, {"values", values}},
                        "",
                        Style::Normal,
                        true});
    return ExitDone;
}

} // namespace

Run declareExport(Arguments& arguments)
{
    const auto pOptions = std::make_shared<FileOptions>();
    arguments.text("KEY", pOptions->key, "Key to write, with all below it", Arguments::Required);
    arguments.text("FILE", pOptions->file, "File to make; - or nothing for standard output");
    arguments.flag("--utf16", pOptions->utf16, "UTF-16LE with a byte-order mark, not UTF-8");
    arguments.flag("--regedit4", pOptions->regedit4, "The older header, bytes as they are", "--utf16");
    arguments.flag("--utf16-data", pOptions->utf16Data, "Strings that are written as bytes become UTF-16LE");
    arguments.flag("-y,--yes", pOptions->yes, "Replace FILE without asking");
    return [=](Output& output) { return exportKey(*pOptions, output); };
}

Run declareImport(Arguments& arguments)
{
    const auto pOptions = std::make_shared<FileOptions>();
    arguments.text("FILE", pOptions->file, "File to read; - for standard input", Arguments::Required);
    addDryRunAndBackup(arguments, pOptions->caution);
    arguments.flag("--check", pOptions->checkOnly,
                   "Read the file, find what the daemon would refuse of it, and write nothing", "--backup");
    arguments.flag("--keep-going", pOptions->keepGoing, "Name what is refused, and go on");
    arguments.flag("--atomic", pOptions->atomic,
                   "Carry out all of FILE or nothing, as one transaction; FILE may have conditions", "--keep-going");
    arguments.flag("--utf16-data", pOptions->utf16Data,
                   "Strings that stand as bytes are UTF-16LE; store them as UTF-8");
    return [=](Output& output) { return import(*pOptions, output); };
}

} // namespace obregtool
