// Files for the verbs: bytes in, bytes out, "-" for the standard streams. Failures name the file.
#ifndef OBREG_TOOL_FILES_H
#define OBREG_TOOL_FILES_H

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace obregtool {

using File = std::unique_ptr<FILE, int (*)(FILE*)>;

/// All bytes of a file, or of standard input for "-". Throws Failure.
std::string readWhole(const std::string& name);

/// A file that is read more than once. One that cannot be (a pipe) is copied to a temporary file first.
class RereadableFile {
public:
    /// "-" for standard input. Throws Failure, as do the others.
    explicit RereadableFile(const std::string& name);

    /// Gives the bytes in pieces, from the beginning each time.
    void read(const std::function<void(std::string_view)>& take);

    const std::string& name() const { return m_name; } ///< for messages

private:
    void spool(FILE* pFrom);

    const std::string m_name;
    File m_pFile;
    long long m_begin = 0;
};

/// A file that appears under its name only when it is complete and on the disk, with the mode and owner of one that it
/// replaces. What is no regular file (a device, a pipe) is written to as it is; standard output for "-".
class NewFile {
public:
    explicit NewFile(const std::string& name);
    ~NewFile(); ///< without commit() nothing of it stays
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    void write(std::string_view bytes);
    void commit();
    /// Whether what was written stays without commit().
    bool isWrittenDirectly() const { return m_temporary.empty(); }

private:
    [[noreturn]] void fail() const;

    const std::string m_name;
    std::string m_target;    // the name without symbolic links
    std::string m_temporary; // empty: written to as it is, or done
    File m_pFile;
};

} // namespace obregtool

#endif
