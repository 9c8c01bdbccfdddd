// The descriptions of the twenty messages, and the classes' members, each of which hands its description to the one
// writer or the one reader.
#include "common/msgproto.h"

#include <algorithm>
#include <cstddef>
#include <new>

#include "common/msgdescription.h"

using namespace msgdescription;

namespace {

/// The description of each class.
template <class Class>
extern const Description DescriptionOf;

// What of a description follows from the class's name.
#define NAMED(Class) #Class, &num##Class##Objs, Class##TemplateS.size()

/// A set-value request's data runs to the end of the message, so the message cannot be padded to its template; the
/// shortest has the shortest handle, no name and no data.
constexpr size_t ShortestSetValueReq =
    SetValueReqMsgTemplateS.size() - std::string_view("0xXXXXXXXXXXXXXXXX").size() + std::string_view("0x1").size();

// clang-format off
template <> constexpr Description DescriptionOf<OpenKeyReqMsg> = Description(NAMED(OpenKeyReqMsg), {
    line(&OpenKeyReqMsg::m_parentKeyHandle, ParentKeyHandleHdrS),
    line(&OpenKeyReqMsg::m_flags, FlagsHdrS),
    line(&OpenKeyReqMsg::m_access, AccessHdrS),
    line(&OpenKeyReqMsg::m_keyName, KeyNameHdrS),
}).ofType(OpenKeyReqMsgTypeS);

template <> constexpr Description DescriptionOf<OpenKeyRespMsg> = Description(NAMED(OpenKeyRespMsg), {
    line(&OpenKeyRespMsg::m_status, StatusHdrS),
    line(&OpenKeyRespMsg::m_keyHandle, KeyHandleHdrS),
});

template <> constexpr Description DescriptionOf<CreateKeyReqMsg> = Description(NAMED(CreateKeyReqMsg), {
    line(&CreateKeyReqMsg::m_parentKeyHandle, ParentKeyHandleHdrS),
    line(&CreateKeyReqMsg::m_flags, FlagsHdrS),
    line(&CreateKeyReqMsg::m_access, AccessHdrS),
    line(&CreateKeyReqMsg::m_keyName, KeyNameHdrS),
}).ofType(CreateKeyReqMsgTypeS);

template <> constexpr Description DescriptionOf<CreateKeyRespMsg> = Description(NAMED(CreateKeyRespMsg), {
    line(&CreateKeyRespMsg::m_status, StatusHdrS),
    line(&CreateKeyRespMsg::m_keyHandle, KeyHandleHdrS),
    line(&CreateKeyRespMsg::m_disposition, DispositionHdrS),
});

template <> constexpr Description DescriptionOf<CloseKeyReqMsg> = Description(NAMED(CloseKeyReqMsg), {
    line(&CloseKeyReqMsg::m_keyHandle, KeyHandleHdrS),
}).ofType(CloseKeyReqMsgTypeS);

template <> constexpr Description DescriptionOf<CloseKeyRespMsg> = Description(NAMED(CloseKeyRespMsg), {
    line(&CloseKeyRespMsg::m_status, StatusHdrS),
});

template <> constexpr Description DescriptionOf<DeleteKeyReqMsg> = Description(NAMED(DeleteKeyReqMsg), {
    line(&DeleteKeyReqMsg::m_parentKeyHandle, ParentKeyHandleHdrS),
    line(&DeleteKeyReqMsg::m_keyName, KeyNameHdrS),
}).ofType(DeleteKeyReqMsgTypeS);

template <> constexpr Description DescriptionOf<DeleteKeyRespMsg> = Description(NAMED(DeleteKeyRespMsg), {
    line(&DeleteKeyRespMsg::m_status, StatusHdrS),
}).noBufferAs("DeleteKeyMsg");

template <> constexpr Description DescriptionOf<SetValueReqMsg> = Description(NAMED(SetValueReqMsg), {
    line(&SetValueReqMsg::m_keyHandle, KeyHandleHdrS),
    line(&SetValueReqMsg::m_valueType, ValueTypeHdrS),
    line(&SetValueReqMsg::m_valueName, ValueNameHdrS),
}).ofType(SetValueReqMsgTypeS).withData().unpadded(ShortestSetValueReq);

template <> constexpr Description DescriptionOf<SetValueRespMsg> = Description(NAMED(SetValueRespMsg), {
    line(&SetValueRespMsg::m_status, StatusHdrS),
}).silentWhenIncomplete();

template <> constexpr Description DescriptionOf<QueryValueReqMsg> = Description(NAMED(QueryValueReqMsg), {
    line(&QueryValueReqMsg::m_keyHandle, KeyHandleHdrS),
    line(&QueryValueReqMsg::m_valueName, ValueNameHdrS),
}).ofType(QueryValueReqMsgTypeS).noBufferAs("Msg");

template <> constexpr Description DescriptionOf<QueryValueRespMsg> = Description(NAMED(QueryValueRespMsg), {
    line(&QueryValueRespMsg::m_status, StatusHdrS),
    line(&QueryValueRespMsg::m_valueType, ValueTypeHdrS),
}).withData();

template <> constexpr Description DescriptionOf<DeleteValueReqMsg> = Description(NAMED(DeleteValueReqMsg), {
    line(&DeleteValueReqMsg::m_keyHandle, KeyHandleHdrS),
    line(&DeleteValueReqMsg::m_valueName, ValueNameHdrS),
}).ofType(DeleteValueReqMsgTypeS);

template <> constexpr Description DescriptionOf<DeleteValueRespMsg> = Description(NAMED(DeleteValueRespMsg), {
    line(&DeleteValueRespMsg::m_status, StatusHdrS),
});

template <> constexpr Description DescriptionOf<EnumKeyReqMsg> = Description(NAMED(EnumKeyReqMsg), {
    line(&EnumKeyReqMsg::m_keyHandle, KeyHandleHdrS),
    line(&EnumKeyReqMsg::m_index, IndexHdrS),
}).ofType(EnumKeyReqMsgTypeS);

template <> constexpr Description DescriptionOf<EnumKeyRespMsg> = Description(NAMED(EnumKeyRespMsg), {
    line(&EnumKeyRespMsg::m_status, StatusHdrS),
    line(&EnumKeyRespMsg::m_lastWriteTime, LastWriteTimeHdrS),
    line(&EnumKeyRespMsg::m_subKeyName, SubKeyNameHdrS),
});

template <> constexpr Description DescriptionOf<EnumValueReqMsg> = Description(NAMED(EnumValueReqMsg), {
    line(&EnumValueReqMsg::m_keyHandle, KeyHandleHdrS),
    line(&EnumValueReqMsg::m_index, IndexHdrS),
}).ofType(EnumValueReqMsgTypeS);

template <> constexpr Description DescriptionOf<EnumValueRespMsg> = Description(NAMED(EnumValueRespMsg), {
    line(&EnumValueRespMsg::m_status, StatusHdrS),
    line(&EnumValueRespMsg::m_valueType, ValueTypeHdrS),
    line(&EnumValueRespMsg::m_valueName, ValueNameHdrS),
}).withData().noBufferAs("EnumValueRespMsgMsg");

template <> constexpr Description DescriptionOf<QueryInfoKeyReqMsg> = Description(NAMED(QueryInfoKeyReqMsg), {
    line(&QueryInfoKeyReqMsg::m_keyHandle, KeyHandleHdrS),
}).ofType(QueryInfoKeyReqMsgTypeS).noBufferAs("Msg");

template <> constexpr Description DescriptionOf<QueryInfoKeyRespMsg> = Description(NAMED(QueryInfoKeyRespMsg), {
    line(&QueryInfoKeyRespMsg::m_status, StatusHdrS),
    line(&QueryInfoKeyRespMsg::m_subKeyCount, SubKeyCountHdrS),
    line(&QueryInfoKeyRespMsg::m_maxSubKeyLength, MaxSubKeyLengthHdrS),
    line(&QueryInfoKeyRespMsg::m_maxClassLength, MaxClassLengthHdrS),
    line(&QueryInfoKeyRespMsg::m_valueCount, ValueCountHdrS),
    line(&QueryInfoKeyRespMsg::m_maxValueNameLength, MaxValueNameLengthHdrS),
    line(&QueryInfoKeyRespMsg::m_maxValueLength, MaxValueLengthHdrS),
    line(&QueryInfoKeyRespMsg::m_lastWriteTime, LastWriteTimeHdrS),
});

// clang-format on

} // namespace

// The members that are the same for every class but for its description.
#define MESSAGE_MEMBERS(Class)                                                                                         \
    uint32_t num##Class##Objs = 0;                                                                                     \
    Class::Class(const MessageValues& values) { assign(DescriptionOf<Class>, *this, values); }                         \
    Class::~Class() { destroy(DescriptionOf<Class>); }                                                                 \
    void Class::serialize(char** ppSerializedObj, int* pSerializedObjLen) const                                        \
    {                                                                                                                  \
        write(DescriptionOf<Class>, *this, ppSerializedObj, pSerializedObjLen);                                        \
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
    construct(DescriptionOf<OpenKeyReqMsg>, *this, orEmpty(pKeyName));
}

OpenKeyRespMsg::OpenKeyRespMsg(REGSTATUS status, HANDLE keyHandle) : m_status(status), m_keyHandle(keyHandle)
{
    construct(DescriptionOf<OpenKeyRespMsg>, *this);
}

CreateKeyReqMsg::CreateKeyReqMsg(HANDLE parentKeyHandle, const char* pKeyName, UINT32 flags, UINT32 access)
    : m_parentKeyHandle(parentKeyHandle), m_flags(flags), m_access(access)
{
    construct(DescriptionOf<CreateKeyReqMsg>, *this, orEmpty(pKeyName));
}

CreateKeyRespMsg::CreateKeyRespMsg(REGSTATUS status, HANDLE keyHandle, UINT32 disposition)
    : m_status(status), m_keyHandle(keyHandle), m_disposition(disposition)
{
    construct(DescriptionOf<CreateKeyRespMsg>, *this);
}

CloseKeyReqMsg::CloseKeyReqMsg(HANDLE keyHandle) : m_keyHandle(keyHandle)
{
    construct(DescriptionOf<CloseKeyReqMsg>, *this);
}

CloseKeyRespMsg::CloseKeyRespMsg(REGSTATUS status) : m_status(status)
{
    construct(DescriptionOf<CloseKeyRespMsg>, *this);
}

DeleteKeyReqMsg::DeleteKeyReqMsg(HANDLE parentKeyHandle, const char* pKeyName) : m_parentKeyHandle(parentKeyHandle)
{
    construct(DescriptionOf<DeleteKeyReqMsg>, *this, orEmpty(pKeyName));
}

DeleteKeyRespMsg::DeleteKeyRespMsg(REGSTATUS status) : m_status(status)
{
    construct(DescriptionOf<DeleteKeyRespMsg>, *this);
}

SetValueReqMsg::SetValueReqMsg(HANDLE keyHandle, const char* pValueName, UINT32 valueType, const char* pValueData,
                               UINT32 valueDataLen, ValueData valueData)
    : m_keyHandle(keyHandle), m_valueType(valueType)
{
    construct(DescriptionOf<SetValueReqMsg>, *this, orEmpty(pValueName), {pValueData, valueDataLen}, valueData);
}

SetValueRespMsg::SetValueRespMsg(REGSTATUS status) : m_status(status)
{
    construct(DescriptionOf<SetValueRespMsg>, *this);
}

QueryValueReqMsg::QueryValueReqMsg(HANDLE keyHandle, const char* pValueName) : m_keyHandle(keyHandle)
{
    construct(DescriptionOf<QueryValueReqMsg>, *this, orEmpty(pValueName));
}

QueryValueRespMsg::QueryValueRespMsg(REGSTATUS status, UINT32 valueType, const char* pValueData, UINT32 valueDataLen,
                                     ValueData valueData)
    : m_status(status), m_valueType(valueType)
{
    construct(DescriptionOf<QueryValueRespMsg>, *this, {}, {pValueData, valueDataLen}, valueData);
}

DeleteValueReqMsg::DeleteValueReqMsg(HANDLE keyHandle, const char* pValueName) : m_keyHandle(keyHandle)
{
    construct(DescriptionOf<DeleteValueReqMsg>, *this, orEmpty(pValueName));
}

DeleteValueRespMsg::DeleteValueRespMsg(REGSTATUS status) : m_status(status)
{
    construct(DescriptionOf<DeleteValueRespMsg>, *this);
}

EnumKeyReqMsg::EnumKeyReqMsg(HANDLE keyHandle, UINT32 index) : m_keyHandle(keyHandle), m_index(index)
{
    construct(DescriptionOf<EnumKeyReqMsg>, *this);
}

EnumKeyRespMsg::EnumKeyRespMsg(REGSTATUS status, const char* pSubKeyName, UINT64 lastWriteTime)
    : m_status(status), m_lastWriteTime(lastWriteTime)
{
    construct(DescriptionOf<EnumKeyRespMsg>, *this, orEmpty(pSubKeyName));
}

EnumValueReqMsg::EnumValueReqMsg(HANDLE keyHandle, UINT32 index) : m_keyHandle(keyHandle), m_index(index)
{
    construct(DescriptionOf<EnumValueReqMsg>, *this);
}

EnumValueRespMsg::EnumValueRespMsg(REGSTATUS status, const char* pValueName, UINT32 valueType, const char* pValueData,
                                   UINT32 valueDataLen, ValueData valueData)
    : m_status(status), m_valueType(valueType)
{
    construct(DescriptionOf<EnumValueRespMsg>, *this, orEmpty(pValueName), {pValueData, valueDataLen}, valueData);
}

QueryInfoKeyReqMsg::QueryInfoKeyReqMsg(HANDLE keyHandle) : m_keyHandle(keyHandle)
{
    construct(DescriptionOf<QueryInfoKeyReqMsg>, *this);
}

QueryInfoKeyRespMsg::QueryInfoKeyRespMsg(REGSTATUS status, UINT32 subKeyCount, UINT32 maxSubKeyLength,
                                         UINT32 maxClassLength, UINT32 valueCount, UINT32 maxValueNameLength,
                                         UINT32 maxValueLength, UINT64 lastWriteTime)
    : m_status(status), m_subKeyCount(subKeyCount), m_maxSubKeyLength(maxSubKeyLength),
      m_maxClassLength(maxClassLength), m_valueCount(valueCount), m_maxValueNameLength(maxValueNameLength),
      m_maxValueLength(maxValueLength), m_lastWriteTime(lastWriteTime)
{
    construct(DescriptionOf<QueryInfoKeyRespMsg>, *this);
}

bool WithValueData::take(std::string_view data, ValueData valueData)
{
    m_valueDataLen = static_cast<UINT32>(data.size());
    if (data.empty())
        return true;
    if (valueData == ValueData::Copied) {
        m_pCopy.reset(new (std::nothrow) char[data.size()]);
        if (!m_pCopy)
            return false;
        std::copy(data.begin(), data.end(), m_pCopy.get());
    }
    m_pValueData = m_pCopy ? m_pCopy.get() : const_cast<char*>(data.data());
    return true;
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
