// The descriptions of the twenty messages, and the classes' members, each of which hands its description to the one
// writer or the one reader.
#include "common/msgproto.h"

#include <cstddef>

#include "common/msgdescription.h"

using namespace msgdescription;

namespace {

/// The description of each class.
template <class Class>
extern const Description DescriptionOf;

// One line of a message: the member, whose type says how its value is written, and the header in front of it.
#define FIELD(Class, m, header)                                                                                        \
    Field { header, kindOf(static_cast<decltype(Class::m)*>(nullptr)), offsetof(Class, m) }
// The beginning of a description: what follows from the class's name.
#define REQUEST(Class) #Class, &num##Class##Objs, Class##TypeS, Class##TemplateS.size()
#define RESPONSE(Class) #Class, &num##Class##Objs, {}, Class##TemplateS.size()
#define DATA(Class) offsetof(Class, m_pValueData), offsetof(Class, m_valueDataLen), offsetof(Class, m_pOwnData)

/// A set-value request's data runs to the end of the message, so the message cannot be padded to its template; the
/// shortest has the shortest handle, no name and no data.
constexpr size_t ShortestSetValueReq =
    SetValueReqMsgTemplateS.size() - std::string_view("0xXXXXXXXXXXXXXXXX").size() + std::string_view("0x1").size();

// clang-format off
template <> constexpr Description DescriptionOf<OpenKeyReqMsg> = Description(REQUEST(OpenKeyReqMsg), {
    FIELD(OpenKeyReqMsg, m_parentKeyHandle, ParentKeyHandleHdrS),
    FIELD(OpenKeyReqMsg, m_flags, FlagsHdrS),
    FIELD(OpenKeyReqMsg, m_access, AccessHdrS),
    FIELD(OpenKeyReqMsg, m_keyName, KeyNameHdrS),
});

template <> constexpr Description DescriptionOf<OpenKeyRespMsg> = Description(RESPONSE(OpenKeyRespMsg), {
    FIELD(OpenKeyRespMsg, m_status, StatusHdrS),
    FIELD(OpenKeyRespMsg, m_keyHandle, KeyHandleHdrS),
});

template <> constexpr Description DescriptionOf<CreateKeyReqMsg> = Description(REQUEST(CreateKeyReqMsg), {
    FIELD(CreateKeyReqMsg, m_parentKeyHandle, ParentKeyHandleHdrS),
    FIELD(CreateKeyReqMsg, m_flags, FlagsHdrS),
    FIELD(CreateKeyReqMsg, m_access, AccessHdrS),
    FIELD(CreateKeyReqMsg, m_keyName, KeyNameHdrS),
});

template <> constexpr Description DescriptionOf<CreateKeyRespMsg> = Description(RESPONSE(CreateKeyRespMsg), {
    FIELD(CreateKeyRespMsg, m_status, StatusHdrS),
    FIELD(CreateKeyRespMsg, m_keyHandle, KeyHandleHdrS),
    FIELD(CreateKeyRespMsg, m_disposition, DispositionHdrS),
});

template <> constexpr Description DescriptionOf<CloseKeyReqMsg> = Description(REQUEST(CloseKeyReqMsg), {
    FIELD(CloseKeyReqMsg, m_keyHandle, KeyHandleHdrS),
});

template <> constexpr Description DescriptionOf<CloseKeyRespMsg> = Description(RESPONSE(CloseKeyRespMsg), {
    FIELD(CloseKeyRespMsg, m_status, StatusHdrS),
});

template <> constexpr Description DescriptionOf<DeleteKeyReqMsg> = Description(REQUEST(DeleteKeyReqMsg), {
    FIELD(DeleteKeyReqMsg, m_parentKeyHandle, ParentKeyHandleHdrS),
    FIELD(DeleteKeyReqMsg, m_keyName, KeyNameHdrS),
});

template <> constexpr Description DescriptionOf<DeleteKeyRespMsg> = Description(RESPONSE(DeleteKeyRespMsg), {
    FIELD(DeleteKeyRespMsg, m_status, StatusHdrS),
}).noBufferAs("DeleteKeyMsg");

template <> constexpr Description DescriptionOf<SetValueReqMsg> = Description(REQUEST(SetValueReqMsg), {
    FIELD(SetValueReqMsg, m_keyHandle, KeyHandleHdrS),
    FIELD(SetValueReqMsg, m_valueType, ValueTypeHdrS),
    FIELD(SetValueReqMsg, m_valueName, ValueNameHdrS),
}).withData(DATA(SetValueReqMsg)).unpadded(ShortestSetValueReq);

template <> constexpr Description DescriptionOf<SetValueRespMsg> = Description(RESPONSE(SetValueRespMsg), {
    FIELD(SetValueRespMsg, m_status, StatusHdrS),
}).silentWhenIncomplete();

template <> constexpr Description DescriptionOf<QueryValueReqMsg> = Description(REQUEST(QueryValueReqMsg), {
    FIELD(QueryValueReqMsg, m_keyHandle, KeyHandleHdrS),
    FIELD(QueryValueReqMsg, m_valueName, ValueNameHdrS),
}).noBufferAs("Msg");

template <> constexpr Description DescriptionOf<QueryValueRespMsg> = Description(RESPONSE(QueryValueRespMsg), {
    FIELD(QueryValueRespMsg, m_status, StatusHdrS),
    FIELD(QueryValueRespMsg, m_valueType, ValueTypeHdrS),
}).withData(DATA(QueryValueRespMsg));

template <> constexpr Description DescriptionOf<DeleteValueReqMsg> = Description(REQUEST(DeleteValueReqMsg), {
    FIELD(DeleteValueReqMsg, m_keyHandle, KeyHandleHdrS),
    FIELD(DeleteValueReqMsg, m_valueName, ValueNameHdrS),
});

template <> constexpr Description DescriptionOf<DeleteValueRespMsg> = Description(RESPONSE(DeleteValueRespMsg), {
    FIELD(DeleteValueRespMsg, m_status, StatusHdrS),
});

template <> constexpr Description DescriptionOf<EnumKeyReqMsg> = Description(REQUEST(EnumKeyReqMsg), {
    FIELD(EnumKeyReqMsg, m_keyHandle, KeyHandleHdrS),
    FIELD(EnumKeyReqMsg, m_index, IndexHdrS),
});

template <> constexpr Description DescriptionOf<EnumKeyRespMsg> = Description(RESPONSE(EnumKeyRespMsg), {
    FIELD(EnumKeyRespMsg, m_status, StatusHdrS),
    FIELD(EnumKeyRespMsg, m_lastWriteTime, LastWriteTimeHdrS),
    FIELD(EnumKeyRespMsg, m_subKeyName, SubKeyNameHdrS),
});

template <> constexpr Description DescriptionOf<EnumValueReqMsg> = Description(REQUEST(EnumValueReqMsg), {
    FIELD(EnumValueReqMsg, m_keyHandle, KeyHandleHdrS),
    FIELD(EnumValueReqMsg, m_index, IndexHdrS),
});

template <> constexpr Description DescriptionOf<EnumValueRespMsg> = Description(RESPONSE(EnumValueRespMsg), {
    FIELD(EnumValueRespMsg, m_status, StatusHdrS),
    FIELD(EnumValueRespMsg, m_valueType, ValueTypeHdrS),
    FIELD(EnumValueRespMsg, m_valueName, ValueNameHdrS),
}).withData(DATA(EnumValueRespMsg)).noBufferAs("EnumValueRespMsgMsg");

template <> constexpr Description DescriptionOf<QueryInfoKeyReqMsg> = Description(REQUEST(QueryInfoKeyReqMsg), {
    FIELD(QueryInfoKeyReqMsg, m_keyHandle, KeyHandleHdrS),
}).noBufferAs("Msg");

template <> constexpr Description DescriptionOf<QueryInfoKeyRespMsg> = Description(RESPONSE(QueryInfoKeyRespMsg), {
    FIELD(QueryInfoKeyRespMsg, m_status, StatusHdrS),
    FIELD(QueryInfoKeyRespMsg, m_subKeyCount, SubKeyCountHdrS),
    FIELD(QueryInfoKeyRespMsg, m_maxSubKeyLength, MaxSubKeyLengthHdrS),
    FIELD(QueryInfoKeyRespMsg, m_maxClassLength, MaxClassLengthHdrS),
    FIELD(QueryInfoKeyRespMsg, m_valueCount, ValueCountHdrS),
    FIELD(QueryInfoKeyRespMsg, m_maxValueNameLength, MaxValueNameLengthHdrS),
    FIELD(QueryInfoKeyRespMsg, m_maxValueLength, MaxValueLengthHdrS),
    FIELD(QueryInfoKeyRespMsg, m_lastWriteTime, LastWriteTimeHdrS),
});

// clang-format on

} // namespace

// The members that are the same for every class but for its description.
#define MESSAGE_MEMBERS(Class)                                                                                         \
    uint32_t num##Class##Objs = 0;                                                                                     \
    Class::Class(const MessageValues& values) { construct(DescriptionOf<Class>, this, values); }                       \
    Class::~Class() { destroy(DescriptionOf<Class>, this); }                                                           \
    void Class::serialize(char** ppSerializedObj, int* pSerializedObjLen) const                                        \
    {                                                                                                                  \
        write(DescriptionOf<Class>, this, ppSerializedObj, pSerializedObjLen);                                         \
    }                                                                                                                  \
    Class* Class::deserialize(const char* pSerializedObj, int serializedObjLen, ValueData valueData)                   \
    {                                                                                                                  \
        MessageValues values;                                                                                          \
        values.valueData = valueData;                                                                                  \
        const bool whole = read(DescriptionOf<Class>, pSerializedObj, serializedObjLen, values);                       \
        Class* const retObj = whole ? new Class(values) : nullptr;                                                     \
        IPC_TRACE("%s::deserialize- End, retObj = %p\n", #Class, static_cast<void*>(retObj));                          \
        return retObj;                                                                                                 \
    }

MESSAGE_MEMBERS(OpenKeyReqMsg)
MESSAGE_MEMBERS(OpenKeyRespMsg)
MESSAGE_MEMBERS(CreateKeyReqMsg)
MESSAGE_MEMBERS(CreateKeyRespMsg)
MESSAGE_MEMBERS(CloseKeyReqMsg)
MESSAGE_MEMBERS(CloseKeyRespMsg)
MESSAGE_MEMBERS(DeleteKeyReqMsg)
MESSAGE_MEMBERS(DeleteKeyRespMsg)
MESSAGE_MEMBERS(SetValueReqMsg)
MESSAGE_MEMBERS(SetValueRespMsg)
MESSAGE_MEMBERS(QueryValueReqMsg)
MESSAGE_MEMBERS(QueryValueRespMsg)
MESSAGE_MEMBERS(DeleteValueReqMsg)
MESSAGE_MEMBERS(DeleteValueRespMsg)
MESSAGE_MEMBERS(EnumKeyReqMsg)
MESSAGE_MEMBERS(EnumKeyRespMsg)
MESSAGE_MEMBERS(EnumValueReqMsg)
MESSAGE_MEMBERS(EnumValueRespMsg)
MESSAGE_MEMBERS(QueryInfoKeyReqMsg)
MESSAGE_MEMBERS(QueryInfoKeyRespMsg)

OpenKeyReqMsg::OpenKeyReqMsg(HANDLE parentKeyHandle, const char* pKeyName, UINT32 flags, UINT32 access)
    : m_parentKeyHandle(parentKeyHandle), m_flags(flags), m_access(access)
{
    construct(DescriptionOf<OpenKeyReqMsg>, this, orEmpty(pKeyName));
}

OpenKeyRespMsg::OpenKeyRespMsg(REGSTATUS status, HANDLE keyHandle) : m_status(status), m_keyHandle(keyHandle)
{
    construct(DescriptionOf<OpenKeyRespMsg>, this);
}

CreateKeyReqMsg::CreateKeyReqMsg(HANDLE parentKeyHandle, const char* pKeyName, UINT32 flags, UINT32 access)
    : m_parentKeyHandle(parentKeyHandle), m_flags(flags), m_access(access)
{
    construct(DescriptionOf<CreateKeyReqMsg>, this, orEmpty(pKeyName));
}

CreateKeyRespMsg::CreateKeyRespMsg(REGSTATUS status, HANDLE keyHandle, UINT32 disposition)
    : m_status(status), m_keyHandle(keyHandle), m_disposition(disposition)
{
    construct(DescriptionOf<CreateKeyRespMsg>, this);
}

CloseKeyReqMsg::CloseKeyReqMsg(HANDLE keyHandle) : m_keyHandle(keyHandle)
{
    construct(DescriptionOf<CloseKeyReqMsg>, this);
}

CloseKeyRespMsg::CloseKeyRespMsg(REGSTATUS status) : m_status(status)
{
    construct(DescriptionOf<CloseKeyRespMsg>, this);
}

DeleteKeyReqMsg::DeleteKeyReqMsg(HANDLE parentKeyHandle, const char* pKeyName) : m_parentKeyHandle(parentKeyHandle)
{
    construct(DescriptionOf<DeleteKeyReqMsg>, this, orEmpty(pKeyName));
}

DeleteKeyRespMsg::DeleteKeyRespMsg(REGSTATUS status) : m_status(status)
{
    construct(DescriptionOf<DeleteKeyRespMsg>, this);
}

SetValueReqMsg::SetValueReqMsg(HANDLE keyHandle, const char* pValueName, UINT32 valueType, const char* pValueData,
                               UINT32 valueDataLen, ValueData valueData)
    : m_keyHandle(keyHandle), m_valueType(valueType), m_valueDataLen(valueDataLen)
{
    construct(DescriptionOf<SetValueReqMsg>, this, orEmpty(pValueName), pValueData, valueData);
}

SetValueRespMsg::SetValueRespMsg(REGSTATUS status) : m_status(status)
{
    construct(DescriptionOf<SetValueRespMsg>, this);
}

QueryValueReqMsg::QueryValueReqMsg(HANDLE keyHandle, const char* pValueName) : m_keyHandle(keyHandle)
{
    construct(DescriptionOf<QueryValueReqMsg>, this, orEmpty(pValueName));
}

QueryValueRespMsg::QueryValueRespMsg(REGSTATUS status, UINT32 valueType, const char* pValueData, UINT32 valueDataLen,
                                     ValueData valueData)
    : m_status(status), m_valueType(valueType), m_valueDataLen(valueDataLen)
{
    construct(DescriptionOf<QueryValueRespMsg>, this, {}, pValueData, valueData);
}

DeleteValueReqMsg::DeleteValueReqMsg(HANDLE keyHandle, const char* pValueName) : m_keyHandle(keyHandle)
{
    construct(DescriptionOf<DeleteValueReqMsg>, this, orEmpty(pValueName));
}

DeleteValueRespMsg::DeleteValueRespMsg(REGSTATUS status) : m_status(status)
{
    construct(DescriptionOf<DeleteValueRespMsg>, this);
}

EnumKeyReqMsg::EnumKeyReqMsg(HANDLE keyHandle, UINT32 index) : m_keyHandle(keyHandle), m_index(index)
{
    construct(DescriptionOf<EnumKeyReqMsg>, this);
}

EnumKeyRespMsg::EnumKeyRespMsg(REGSTATUS status, const char* pSubKeyName, UINT64 lastWriteTime)
    : m_status(status), m_lastWriteTime(lastWriteTime)
{
    construct(DescriptionOf<EnumKeyRespMsg>, this, orEmpty(pSubKeyName));
}

EnumValueReqMsg::EnumValueReqMsg(HANDLE keyHandle, UINT32 index) : m_keyHandle(keyHandle), m_index(index)
{
    construct(DescriptionOf<EnumValueReqMsg>, this);
}

EnumValueRespMsg::EnumValueRespMsg(REGSTATUS status, const char* pValueName, UINT32 valueType, const char* pValueData,
                                   UINT32 valueDataLen, ValueData valueData)
    : m_status(status), m_valueType(valueType), m_valueDataLen(valueDataLen)
{
    construct(DescriptionOf<EnumValueRespMsg>, this, orEmpty(pValueName), pValueData, valueData);
}

QueryInfoKeyReqMsg::QueryInfoKeyReqMsg(HANDLE keyHandle) : m_keyHandle(keyHandle)
{
    construct(DescriptionOf<QueryInfoKeyReqMsg>, this);
}

QueryInfoKeyRespMsg::QueryInfoKeyRespMsg(REGSTATUS status, UINT32 subKeyCount, UINT32 maxSubKeyLength,
                                         UINT32 maxClassLength, UINT32 valueCount, UINT32 maxValueNameLength,
                                         UINT32 maxValueLength, UINT64 lastWriteTime)
    : m_status(status), m_subKeyCount(subKeyCount), m_maxSubKeyLength(maxSubKeyLength),
      m_maxClassLength(maxClassLength), m_valueCount(valueCount), m_maxValueNameLength(maxValueNameLength),
      m_maxValueLength(maxValueLength), m_lastWriteTime(lastWriteTime)
{
    construct(DescriptionOf<QueryInfoKeyRespMsg>, this);
}

ReqMessage::MessageTypes ReqMessage::getReqMsgType(const char& buff)
{
    // In enumerator order: the first is type 1.
    constexpr std::string_view codes[] = {
        CloseKeyReqMsgTypeS, CreateKeyReqMsgTypeS,    DeleteKeyReqMsgTypeS, DeleteValueReqMsgTypeS,
        EnumKeyReqMsgTypeS,  EnumValueReqMsgTypeS,    OpenKeyReqMsgTypeS,   QueryValueReqMsgTypeS,
        SetValueReqMsgTypeS, QueryInfoKeyReqMsgTypeS,
    };
    IPC_TRACE("ReqMessage::getReqMsgType- Start\n");
    int type = CloseKeyReqMsgType;
    for (const std::string_view code : codes) {
        if (lineIs(&buff, code))
            break;
        ++type;
    }
    if (type == UnknownReqMsgType)
        IPC_ERROR("ReqMessage::getReqMsgType- No match found\n");
    IPC_TRACE("ReqMessage::getReqMsgType- End, type = %d\n", type);
    return static_cast<MessageTypes>(type);
}
