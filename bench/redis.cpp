// Redis over a Unix socket: a connection for every thread, or one behind a mutex.
#include <mutex>

#include <hiredis/hiredis.h>

#include "contender.h"

namespace {

using Reply = std::unique_ptr<redisReply, void (*)(redisReply*)>;

class Redis : public Contender {
public:
    explicit Redis(const Load& load) : m_load(load), m_pShared(connection())
    {
        const std::string value(load.bytes, 'e');
        ask(m_pShared.get(), "SET %s %b", m_name.c_str(), value.data(), value.size());
    }

    std::function<void()> newCall() override
    {
        if (m_load.shared)
            return [this] {
                const std::lock_guard lock(m_mutex);
                call(m_pShared.get());
            };
        return [this, pOwn = connection()] { call(pOwn.get()); };
    }

private:
    std::shared_ptr<redisContext> connection() const
    {
        std::shared_ptr<redisContext> pContext(redisConnectUnix(m_load.address.c_str()), redisFree);
        require(pContext && pContext->err == 0, "no redis");
        return pContext;
    }

    template <class... Args>
    static Reply ask(redisContext* pContext, const char* pCommand, Args... args)
    {
        Reply pReply(static_cast<redisReply*>(redisCommand(pContext, pCommand, args...)),
                     [](redisReply* p) { freeReplyObject(p); });
        require(pReply && pReply->type != REDIS_REPLY_ERROR, "redis failed");
        return pReply;
    }

    void call(redisContext* pContext) const
    {
        thread_local std::string value;
        value.resize(m_load.bytes, 'e');
        if (m_load.set) {
            ask(pContext, "SET %s %b", m_name.c_str(), value.data(), value.size());
            return;
        }
        const Reply pReply = ask(pContext, "GET %s", m_name.c_str());
        require(pReply->len == m_load.bytes, "bad reply");
        value.assign(pReply->str, pReply->len);
    }

    const Load m_load;
    const std::string m_name = valueName(m_load.bytes);
    const std::shared_ptr<redisContext> m_pShared;
    std::mutex m_mutex;
};

} // namespace

std::unique_ptr<Contender> makeRedis(const Load& load) { return std::make_unique<Redis>(load); }
