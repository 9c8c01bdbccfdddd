// A folder of a test's own, which goes with it.
#ifndef OBREG_TESTS_TEMPORARY_FOLDER_H
#define OBREG_TESTS_TEMPORARY_FOLDER_H

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

class TemporaryFolder {
public:
    explicit TemporaryFolder(const std::string& where = std::filesystem::temp_directory_path())
        : m_path(where + "/obregd-XXXXXX")
    {
        if (mkdtemp(m_path.data()) == nullptr)
            throw std::runtime_error("no folder can be made in " + where);
    }
    ~TemporaryFolder() { std::filesystem::remove_all(m_path); }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    /// A path in it.
    std::string operator/(const std::string& name) const { return m_path + '/' + name; }

private:
    std::string m_path;
};

#endif
