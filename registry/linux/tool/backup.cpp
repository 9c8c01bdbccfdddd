#include "backup.h"

#include <unistd.h>

#include "alarm.h"
#include "errors.h"
#include "readtree.h"

namespace obregtool {

namespace {

const std::string& unused(const std::string& file, bool replace)
{
    if (file == "-")
        throw UsageError("--backup needs a file: standard output is not kept");
    if (!replace && access(file.c_str(), F_OK) == 0)
        throw Failure(ExitFailed, file + ": exists, and may be the only backup of something else",
                      "choose another name, or replace it with --force; nothing was changed");
    return file;
}

void writeTree(const KeyPath& top, RegWriter& writer)
{
    walk(top, true, [&](const KeyPath& path, const obreg::Key& key, KeyContent& content, size_t /*depth*/) {
        endIfInterrupted();
        writer.key(path.text());
        forEachValue(key, path, content.values, [&](const obreg::NamedValue& value) {
            endIfInterrupted();
            writer.value(value.name, value.value);
        });
    });
}

} // namespace

Backup::Backup(const std::string& file, bool replace)
    : m_file(unused(file, replace)), m_writer(RegFormat::Utf8, [this](std::string_view bytes) { m_file.write(bytes); })
{
    letInterruptsEndWork(); // again, for the file looks after signals itself
}

void Backup::key(const KeyPath& key, const Place& /*place*/)
{
    endIfInterrupted();
    m_path = key;
    m_named = false;
    m_key = m_probe.open(key);
    if (m_key)
        return;
    const KeyPath missing = m_probe.uppermostMissing(key).value_or(key);
    if (m_missing.insert(missing.identity()).second)
        m_writer.removeKey(missing.text());
}

void Backup::removeKey(const KeyPath& key, const Place& /*place*/)
{
    m_key = obreg::Key();
    if (m_probe.exists(key))
        writeTree(key, m_writer); // what the changes put there instead is deleted by itself
}

void Backup::value(std::string&& name, obreg::Value&& /*value*/, const Place& /*place*/) { saveValue(name); }

void Backup::removeValue(std::string&& name, const Place& /*place*/) { saveValue(name); }

void Backup::saveValue(const std::string& name)
{
    endIfInterrupted();
    if (!m_key)
        return;
    if (!m_named)
        m_writer.key(m_path.text());
    m_named = true;
    const std::string written = isUnnamed(name) ? "default" : name;
    if (const std::optional<obreg::Value> old = findValue(m_key, m_path, name))
        m_writer.value(written, *old);
    else
        m_writer.removeValue(written);
}

void Backup::commit()
{
    m_writer.finish();
    m_file.commit();
}

} // namespace obregtool
