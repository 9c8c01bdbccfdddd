#include "importer.h"

#include <algorithm>

#include "alarm.h"
#include "readtree.h"

namespace obregtool {

namespace {

std::vector<uint64_t> sorted(std::vector<uint64_t> lines)
{
    std::sort(lines.begin(), lines.end());
    return lines;
}

/// "line 4" or "lines 4, 6-9".
std::string linesText(const std::vector<uint64_t>& unsorted)
{
    const std::vector<uint64_t> lines = sorted(unsorted);
    std::string text = lines.size() == 1 ? "line" : "lines";
    for (size_t i = 0; i < lines.size(); ++i) {
        const size_t first = i;
        while (i + 1 < lines.size() && lines[i + 1] == lines[i] + 1)
            ++i;
        text += (first == 0 ? " " : ", ") + std::to_string(lines[first]);
        if (i != first)
            text += '-' + std::to_string(lines[i]);
    }
    return text;
}

} // namespace

Failure inFile(const Failure& failure, const std::string& place, const std::string& advice)
{
    Failure located(failure.exit, place + failure.what(), failure.advice);
    if (!advice.empty())
        located.addAdvice(advice);
    located.key = failure.key;
    located.status = failure.status;
    return located;
}

Failure inLine(const Failure& failure, const std::string& file, uint64_t line)
{
    Failure located = inFile(failure, file + ", line " + std::to_string(line) + ": ", "");
    located.details = {{"file", file}, {"line", line}};
    return located;
}

Failure noBytes(const std::string& subject)
{
    return {ExitFailed, subject + ": has no bytes, and the registry cannot store such a value",
            "it is left out; a value that has only to be there can be hex(0):00"};
}

void Importer::key(const KeyPath& key, const Place& place)
{
    endIfInterrupted();
    m_pTarget = std::make_shared<Target>(key);
    m_queue.createKey(m_pTarget, place.line);
    tellRefused();
}

void Importer::removeKey(const KeyPath& key, const Place& place)
{
    m_pTarget.reset();
    m_queue.wait();
    tellRefused();
    try {
        removeTree(key);
    } catch (const Failure& failure) {
        if (failure.exit == ExitInterrupted)
            throw;
        if (failure.exit != ExitNotFound && (!m_goesOn || failure.exit == ExitNoDaemon))
            throw WriteFailure(failure, place.line);
        if (failure.exit != ExitNotFound) {
            tell(failure, place.line);
            return;
        }
    }
    ++m_removedKeys;
    m_lastRemoval = place.line;
}

void Importer::value(std::string&& name, obreg::Value&& value, const Place& place)
{
    endIfInterrupted();
    if (value.data.empty())
        tell(noBytes(subjectText(m_pTarget->path(), &name)), place.line);
    else
        m_queue.set(m_pTarget, std::move(name), std::move(value), place.line);
    m_progress.update(done());
    tellRefused();
}

void Importer::removeValue(std::string&& name, const Place& place)
{
    endIfInterrupted();
    m_queue.removeValue(m_pTarget, std::move(name), place.line);
    m_progress.update(done());
    tellRefused();
}

void Importer::finish()
{
    m_queue.wait();
    tellRefused();
}

Failure Importer::end(const Failure& why)
{
    try {
        m_queue.cut();
        finish();
        if (const auto* pFailure = dynamic_cast<const WriteFailure*>(&why))
            return stopped(*pFailure);
        return ended(why);
    } catch (const WriteFailure& failure) {
        tellRefused();
        return stopped(failure);
    }
}

void Importer::tell(const Failure& failure, uint64_t line)
{
    ++m_refused;
    m_progress.clear();
    m_output.problem(inLine(failure, m_file, line));
}

void Importer::tellRefused()
{
    for (const WriteFailure& failure : m_queue.takeRefused())
        tell(failure, failure.line);
}

Failure Importer::stopped(const WriteFailure& failure) const
{
    const bool uncertain = failure.status == OBREG_STATUS_REQUEST_FAILED;
    const std::string line = "line " + std::to_string(failure.line);
    std::string stands = countText() + ": all before " + line + (m_refused == 0 ? "" : " but those named above");
    stands += failure.after.empty() ? " and none after it" : " and after it " + linesText(failure.after);
    if (uncertain)
        stands += "; no answer came for " + line + ", which may have been carried out";
    if (!failure.unknown.empty())
        stands +=
            std::string(uncertain ? ", and " : "; no answer came ") + "for " + linesText(failure.unknown) + " neither";
    Failure located = inLine(failure, m_file, failure.line);
    located.addAdvice(stands + "; the file can be imported again");
    addFigures(located, failure.line);
    located.details.push_back({"after", sorted(failure.after)});
    located.details.push_back({"unknown", sorted(failure.unknown)});
    return located;
}

Failure Importer::ended(const Failure& failure) const
{
    const uint64_t last = std::max(m_queue.lastLine(), m_lastRemoval);
    std::string stands = countText();
    if (last != 0)
        stands += ", all up to line " + std::to_string(last) + (m_refused == 0 ? "" : " but those named above");
    Failure located = inFile(failure, m_file + ": ", stands + "; the file can be imported again");
    addFigures(located, last);
    return located;
}

void Importer::addFigures(Failure& failure, uint64_t line) const
{
    failure.details = {{"file", m_file}, {"line", line}, {"done", done()}, {"total", m_total}, {"refused", m_refused}};
}

std::string Importer::countText() const
{
    return std::to_string(done()) + " of " + std::to_string(m_total) + " statements were carried out";
}

} // namespace obregtool
