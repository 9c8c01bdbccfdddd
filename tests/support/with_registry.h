// The daemon's operations on a store of a test's own, in process: requests and responses as text, without a socket.
#ifndef OBREG_TESTS_WITH_REGISTRY_H
#define OBREG_TESTS_WITH_REGISTRY_H

#include <memory>
#include <string>

#include "daemon/serve/transactions.h"
#include "obreg/roots.h"
#include "support/encoded.h"
#include "support/with_store.h"

class WithRegistry : public WithStore {
protected:
    template <class Request>
    static obregd::JobPtr job(uid_t uid, const Request& request)
    {
        const std::string text = encoded(request);
        return obregd::JobPtr(
            new obregd::Job{nullptr, 0, {uid, 1}, obregd::findOperation(text), obregd::Payload(text.size(), text)});
    }

    /// Runs the jobs, together if they can be; they come back with their replies.
    obregd::JobList commit(obregd::JobList jobs)
    {
        obregd::JobList done;
        while (!jobs.empty())
            done.append(obregd::Transactions(*m_pWriter).run([&] { return jobs.empty() ? nullptr : jobs.pop(); }));
        return done;
    }

    template <class Response>
    static std::unique_ptr<Response> response(const obregd::Reply& reply)
    {
        return std::unique_ptr<Response>(Response::deserialize(reply.pText.get(), reply.length));
    }

    /// As the daemon does it: on the reading store when that will do.
    template <class Response, class Request>
    std::unique_ptr<Response> call(const Request& request, uid_t uid = 0)
    {
        obregd::JobList work;
        work.append(job(uid, request));
        const obregd::Job& job = work.front();
        try {
            if (!job.pOperation->writes)
                return response<Response>(job.pOperation->serve({m_reader, nullptr, job.peer}, job.request.text()));
        } catch (const obregd::NeedsWriter&) {
        }
        return response<Response>(commit(std::move(work)).front().reply);
    }

    auto open(HANDLE parent, const std::string& path, UINT32 access = KEY_READ, uid_t uid = 0)
    {
        return call<OpenKeyRespMsg>(OpenKeyReqMsg(parent, path.c_str(), 0, access), uid);
    }
    auto create(HANDLE parent, const std::string& path, UINT32 access = KEY_READ, uid_t uid = 0)
    {
        return call<CreateKeyRespMsg>(CreateKeyReqMsg(parent, path.c_str(), 0, access), uid);
    }
    HANDLE make(const std::string& path) { return create(HKEY_LOCAL_MACHINE, path)->m_keyHandle; }
    REGSTATUS removeKey(HANDLE parent, const std::string& path, uid_t uid = 0)
    {
        return call<DeleteKeyRespMsg>(DeleteKeyReqMsg(parent, path.c_str()), uid)->m_status;
    }
    REGSTATUS close(HANDLE key) { return call<CloseKeyRespMsg>(CloseKeyReqMsg(key))->m_status; }
    REGSTATUS set(HANDLE key, const std::string& name, const std::string& data, UINT32 type = REG_BINARY, uid_t uid = 0)
    {
        return call<SetValueRespMsg>(
                   SetValueReqMsg(key, name.c_str(), type, data.data(), static_cast<UINT32>(data.size())), uid)
            ->m_status;
    }
    auto query(HANDLE key, const std::string& name, uid_t uid = 0)
    {
        return call<QueryValueRespMsg>(QueryValueReqMsg(key, name.c_str()), uid);
    }
    REGSTATUS removeValue(HANDLE key, const std::string& name, uid_t uid = 0)
    {
        return call<DeleteValueRespMsg>(DeleteValueReqMsg(key, name.c_str()), uid)->m_status;
    }
    auto info(HANDLE key) { return call<QueryInfoKeyRespMsg>(QueryInfoKeyReqMsg(key)); }
    auto keyAt(HANDLE key, size_t index)
    {
        return call<EnumKeyRespMsg>(EnumKeyReqMsg(key, static_cast<UINT32>(index)));
    }
    auto valueAt(HANDLE key, size_t index)
    {
        return call<EnumValueRespMsg>(EnumValueReqMsg(key, static_cast<UINT32>(index)));
    }

    obregd::Store m_reader{m_path};
};

#endif
