#include "daemon/store/shared.h"

#include <cerrno>
#include <map>
#include <mutex>
#include <sys/stat.h>
#include <system_error>

namespace obregd {

std::shared_ptr<Shared> sharedOf(const std::string& path)
{
    static std::mutex mutex;
    static std::map<std::pair<dev_t, ino_t>, std::weak_ptr<Shared>> files;
    struct stat file {};
    if (stat(path.c_str(), &file) != 0)
        throw std::system_error(errno, std::generic_category(), path);
    const std::lock_guard lock(mutex);
    std::weak_ptr<Shared>& known = files[{file.st_dev, file.st_ino}];
    std::shared_ptr<Shared> pShared = known.lock();
    if (pShared == nullptr)
        known = pShared = std::make_shared<Shared>();
    return pShared;
}

} // namespace obregd
