#include "daemon/operations.h"

#include <algorithm>
#include <tuple>

#include "daemon/handlers.h"
#include "obreg/roots.h"

namespace obregd {

namespace {

template <class Response>
Reply encode(const Response& response)
{
    char* pText = nullptr;
    Reply reply;
    response.serialize(&pText, &reply.length);
    reply.pText.reset(pText);
    return reply;
}

/// What surrounds a handler. A handler takes the decoded request, returns the status and sets the response's other
/// fields; they stay zero when it leaves them alone.
template <class Response, auto handler>
struct Serving;

template <class Response, class Request, class... Results,
          REGSTATUS (*handler)(const Session&, const Request&, Results&...)>
struct Serving<Response, handler> {
    static Reply serve(const Session& session, std::string_view text)
    {
        const std::unique_ptr<Request> pRequest(Request::deserialize(text.data(), static_cast<int>(text.size())));
        if (pRequest == nullptr)
            return {};
        const Store::Snapshot snapshot(session.store);
        std::tuple<Results...> results{};
        return std::apply(
            [&](Results&... result) {
                const REGSTATUS status = handler(session, *pRequest, result...);
                return encode(Response(status, result...));
            },
            results);
    }

    static Reply refuse(REGSTATUS status) { return encode(Response(status, Results{}...)); }
};

template <class Response, auto handler>
constexpr Operation operation(ReqMessage::MessageTypes type, bool writes = false, bool frees = false)
{
    return {type, writes, frees, Serving<Response, handler>::serve, Serving<Response, handler>::refuse};
}

Reply answerStrings(const std::string& text)
{
    return encode(QueryValueRespMsg(OBREG_STATUS_SUCCESS, REG_MULTI_SZ, text.data(), static_cast<UINT32>(text.size())));
}

constexpr Operation Operations[] = {
    operation<CloseKeyRespMsg, closeKey>(ReqMessage::CloseKeyReqMsgType),
    operation<CreateKeyRespMsg, createKey>(ReqMessage::CreateKeyReqMsgType), // most creates only open
    operation<DeleteKeyRespMsg, deleteKey>(ReqMessage::DeleteKeyReqMsgType, true, true),
    operation<DeleteValueRespMsg, deleteValue>(ReqMessage::DeleteValueReqMsgType, true, true),
    operation<EnumKeyRespMsg, enumKey>(ReqMessage::EnumKeyReqMsgType),
    operation<EnumValueRespMsg, enumValue>(ReqMessage::EnumValueReqMsgType),
    operation<OpenKeyRespMsg, openKey>(ReqMessage::OpenKeyReqMsgType),
    operation<QueryValueRespMsg, queryValue>(ReqMessage::QueryValueReqMsgType),
    operation<SetValueRespMsg, setValue>(ReqMessage::SetValueReqMsgType, true),
    operation<QueryInfoKeyRespMsg, queryInfoKey>(ReqMessage::QueryInfoKeyReqMsgType),
};

} // namespace

std::optional<Reply> tellChanges(Store& store, Wait& wait, bool timeIsUp)
{
    const Store::Snapshot snapshot(store);
    const Told told = store.told(wait.watched);
    wait.watched.since = std::max(wait.watched.since, told.upTo);
    if (told.empty() && !timeIsUp)
        return std::nullopt;
    return answerStrings(answerText(told));
}

Reply tellEnded(size_t waits) { return answerStrings(endedText(waits)); }

bool isTransaction(const Operation& operation, std::string_view request)
{
    if (operation.type != ReqMessage::SetValueReqMsgType)
        return false;
    // However the number is written, these digits are in it; only the name and the data may be long.
    const std::string_view head = request.substr(0, size_t{2} * OBREG_MAX_VALUE_NAME);
    if (head.substr(0, head.find("\r\n\r\n")).find("80000011") == std::string_view::npos)
        return false;
    const std::unique_ptr<SetValueReqMsg> pRequest(
        SetValueReqMsg::deserialize(request.data(), static_cast<int>(request.size()), ValueData::Borrowed));
    return pRequest != nullptr && reinterpret_cast<uintptr_t>(pRequest->m_keyHandle) == TransactionsHandle;
}

const Operation* findOperation(std::string_view request)
{
    if (request.size() <= MsgTypeTemplateS.size()) // a type line and its end would not fit
        return nullptr;
    const ReqMessage::MessageTypes type = ReqMessage::getReqMsgType(request.front());
    for (const Operation& operation : Operations)
        if (operation.type == type)
            return &operation;
    return nullptr;
}

} // namespace obregd
