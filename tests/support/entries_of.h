#ifndef OBREG_TESTS_ENTRIES_OF_H
#define OBREG_TESTS_ENTRIES_OF_H

#include <filesystem>

/// How much is in a folder: of this process's descriptors in /proc/self/fd, of its threads in /proc/self/task.
inline size_t entriesOf(const char* pFolder)
{
    const auto entries = std::filesystem::directory_iterator(pFolder);
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

#endif
