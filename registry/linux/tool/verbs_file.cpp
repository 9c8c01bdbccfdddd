// import and export: keys as .reg text. docs/reg-format.md describes the text.
#include <unistd.h>

#include "caution.h"
#include "files.h"
#include "readtree.h"
#include "regreader.h"
#include "regwriter.h"
#include "verbs.h"
#include "writequeue.h"

namespace obregtool {

namespace {

struct FileOptions {
    std::string key;
    std::string file = "-";
    bool utf16 = false;
    bool regedit4 = false;
    bool yes = false;
    bool checkOnly = false;
    Caution caution;
};

/// Counts statements: the first pass, which finds the mistakes.
class Counter : public RegSink {
public:
    void key(const KeyPath& /*key*/, const Place& /*place*/) override { ++keys; }
    void removeKey(const KeyPath& /*key*/, const Place& /*place*/) override { ++deletions; }
    void value(std::string&& /*name*/, obreg::Value&& /*value*/, const Place& /*place*/) override { ++values; }
    void removeValue(std::string&& /*name*/, const Place& /*place*/) override { ++deletions; }

    uint64_t all() const { return keys + values + deletions; }

    uint64_t keys = 0;
    uint64_t values = 0;
    uint64_t deletions = 0;
};

/// Carries statements out: the second pass.
class Importer : public RegSink {
public:
    explicit Importer(uint64_t total) : m_progress("imported", total) {}

    void key(const KeyPath& key, const Place& place) override
    {
        m_pTarget = std::make_shared<Target>(key);
        m_queue.createKey(m_pTarget, place.line);
    }

    void removeKey(const KeyPath& key, const Place& place) override
    {
        m_pTarget.reset();
        m_queue.wait();
        try {
            removeTree(key);
        } catch (const Failure& failure) {
            if (failure.exit != ExitNotFound)
                throw WriteFailure(failure, place.line);
        }
        ++m_removedKeys;
    }

    void value(std::string&& name, obreg::Value&& value, const Place& place) override
    {
        m_queue.set(m_pTarget, std::move(name), std::move(value), place.line);
        m_progress.update(done());
    }

    void removeValue(std::string&& name, const Place& place) override
    {
        m_queue.removeValue(m_pTarget, std::move(name), place.line);
        m_progress.update(done());
    }

    void wait() { m_queue.wait(); }
    void settle() { m_queue.settle(); }
    uint64_t done() const { return m_queue.done() + m_removedKeys; }

private:
    WriteQueue m_queue;
    std::shared_ptr<Target> m_pTarget;
    uint64_t m_removedKeys = 0;
    Progress m_progress;
};

void readFile(RereadableFile& file, RegSink& sink)
{
    RegReader reader(sink);
    file.read([&reader](std::string_view bytes) { reader.feed(bytes); });
    reader.finish();
}

/// The failure with its place in a file, and what to do then.
Failure inFile(const Failure& failure, const std::string& place, const std::string& advice)
{
    Failure located(failure.exit, place + failure.what(), failure.advice + advice);
    located.key = failure.key;
    located.status = failure.status;
    return located;
}

void importFile(RereadableFile& file, uint64_t total)
{
    Importer importer(total);
    const auto soFar = [&] {
        importer.settle();
        return "; " + std::to_string(importer.done()) + " of " + std::to_string(total) + " statements were carried out";
    };
    try {
        readFile(file, importer);
        importer.wait();
    } catch (const WriteFailure& failure) {
        throw inFile(failure, file.name() + ", line " + std::to_string(failure.line) + ": ",
                     soFar() + ", and the file can be imported again");
    } catch (const RegSyntaxError& error) {
        throw Failure(ExitFailed, file.name() + ", " + error.what(),
                      "the file has changed while it was read" + soFar());
    }
}

/// Finds what the daemon would refuse, and does what else is wanted before the first write. False when nothing is to be
/// written.
bool prepareImport(RereadableFile& file, const FileOptions& options, Output& output)
{
    constexpr auto passes = Rehearsal::Missing::Passes;
    const Changes changes = [&file](RegSink& sink) { readFile(file, sink); };
    try {
        if (!prepare(options.caution, passes, changes, output))
            return false;
        if (options.caution.backup.empty()) {
            Rehearsal rehearsal(passes);
            changes(rehearsal);
        }
    } catch (const WriteFailure& failure) {
        throw inFile(failure, file.name() + ", line " + std::to_string(failure.line) + ": ", "; nothing was written");
    } catch (const RegSyntaxError& error) {
        throw Failure(ExitFailed, file.name() + ", " + error.what(),
                      "the file has changed while it was read; nothing was written");
    }
    return !options.checkOnly;
}

int import(const FileOptions& options, Output& output)
{
    RereadableFile file(options.file);
    Counter counter;
    try {
        readFile(file, counter);
    } catch (const RegSyntaxError& error) {
        throw Failure(ExitBadFile, file.name() + ", " + error.what(),
                      "nothing was written; mend that line and try again");
    }
    if (prepareImport(file, options, output))
        carryOut(options.caution, [&] { importFile(file, counter.all()); });
    if (options.caution.dryRun)
        return ExitDone;
    output.summary(
        {options.checkOnly ? "checked" : "imported",
         {{"file", file.name()}, {"keys", counter.keys}, {"values", counter.values}, {"deletions", counter.deletions}},
         "",
         Style::Normal,
         true});
    return ExitDone;
}

int exportKey(const FileOptions& options, Output& output)
{
    const KeyPath path = keyArgument(options.key);
    const bool toStream = options.file == "-";
    if (toStream && output.form() == Form::Json)
        throw UsageError("export --json needs a FILE: the text itself would go where the JSON goes");
    if (!toStream && !options.yes && access(options.file.c_str(), F_OK) == 0 &&
        !confirmed(options.file + " exists. Replace it?"))
        throw Failure(ExitFailed, "nothing was exported");

    uint64_t keys = 0;
    uint64_t values = 0;
    const obreg::Key found = path.open(); // before a file is made
    NewFile file(options.file);
    const RegFormat format = options.utf16      ? RegFormat::Utf16
                             : options.regedit4 ? RegFormat::Regedit4
                                                : RegFormat::Utf8;
    RegWriter writer(format, [&file](std::string_view bytes) { file.write(bytes); });
    {
        Progress progress("exported", 0);
        walk(path, true, [&](const KeyPath& at, const obreg::Key& key, KeyContent& content, size_t /*depth*/) {
            writer.key(at.text());
            ++keys;
            for (ValueEntry& entry : content.values)
                if (const std::optional<obreg::NamedValue> value = takeValue(key, at, std::move(entry))) {
                    writer.value(value->name, value->value);
                    progress.update(++values);
                }
            return true;
        });
    }
    writer.finish();
    file.commit();
    if (!toStream)
        output.summary({"exported",
                        {{"key", path.text()}, {"file", options.file}, {"keys", keys}, {"values", values}},
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
    return [=](Output& output) { return import(*pOptions, output); };
}

} // namespace obregtool
