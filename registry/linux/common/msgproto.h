// The registry messages: ten requests, ten responses, as classes that write themselves to text and read themselves
// back.
//
// A message is lines of "Header =value\r\n", an empty line, and for three of them the value data as raw bytes. A
// request begins with its type code on a line of its own. What differs between two messages (header order, kinds of
// value, odd log texts) is data, written down once per message in msgproto.cpp; one writer and one reader serve all of
// them.
//
// Every class has, besides its public fields and a constructor that takes them all in order:
//
//   void serialize(char** ppSerializedObj, int* pSerializedObjLen)
//       Writes the message into a new array; the caller releases it with delete[]. Null and 0 when it cannot. The
//       length is the template's plus the names' and data's; where the text is shorter, zero bytes fill it up. The
//       set-value request alone reports the bytes it wrote, because its data runs to the end of the message.
//   static Class* deserialize(const char* pSerializedObj, int serializedObjLen, ValueData = Copied)
//       Reads a message; the caller deletes the object. Null when the message is shorter than the class's template or
//       lacks a field. Lines may come in any order, unknown ones are skipped, the first of two counts. A request's
//       type line is skipped unseen. The input is only read.
//
// Names are copied in and may be null (empty). Value data is copied into an array of the object's own, or on request
// only borrowed: the object then points into the caller's array or the text that was read, which must outlive it. It is
// null exactly when its length is 0. Constructors and deserialize may throw std::bad_alloc, with nothing left behind.
//
// An object belongs to one thread; different objects are independent. num<Class>Objs counts the live objects of a
// class, for inspection.
#ifndef OBREG_COMMON_MSGPROTO_H
#define OBREG_COMMON_MSGPROTO_H

#include <memory>
#include <string>
#include <string_view>

#include "common/ipcint.h"

inline constexpr std::string_view MsgTypeTemplateS = "TypeXX";

inline constexpr std::string_view CloseKeyReqMsgTypeS = "Type01";
inline constexpr std::string_view CreateKeyReqMsgTypeS = "Type02";
inline constexpr std::string_view DeleteKeyReqMsgTypeS = "Type03";
inline constexpr std::string_view DeleteValueReqMsgTypeS = "Type04";
inline constexpr std::string_view EnumKeyReqMsgTypeS = "Type05";
inline constexpr std::string_view EnumValueReqMsgTypeS = "Type06";
inline constexpr std::string_view OpenKeyReqMsgTypeS = "Type07";
inline constexpr std::string_view QueryValueReqMsgTypeS = "Type08";
inline constexpr std::string_view SetValueReqMsgTypeS = "Type09";
inline constexpr std::string_view QueryInfoKeyReqMsgTypeS = "Type0A";

inline constexpr std::string_view KeyHandleHdrS = "KeyHandle =";
inline constexpr std::string_view StatusHdrS = "Status =";
inline constexpr std::string_view ParentKeyHandleHdrS = "ParentKeyHandle =";
inline constexpr std::string_view FlagsHdrS = "Flags =";
inline constexpr std::string_view AccessHdrS = "Access =";
inline constexpr std::string_view IndexHdrS = "Index =";
inline constexpr std::string_view DispositionHdrS = "Disposition =";
inline constexpr std::string_view KeyNameHdrS = "KeyName =";
inline constexpr std::string_view SubKeyNameHdrS = "SubKeyName =";
inline constexpr std::string_view ValueNameHdrS = "ValueName =";
inline constexpr std::string_view ValueTypeHdrS = "ValueType =";
inline constexpr std::string_view LastWriteTimeHdrS = "LastWriteTime =";
inline constexpr std::string_view SubKeyCountHdrS = "SubKeyCount =";
inline constexpr std::string_view MaxSubKeyLengthHdrS = "MaxSubKeyLength =";
inline constexpr std::string_view MaxClassLengthHdrS = "MaxClassLength =";
inline constexpr std::string_view ValueCountHdrS = "ValueCount =";
inline constexpr std::string_view MaxValueNameLengthHdrS = "MaxValueNameLength =";
inline constexpr std::string_view MaxValueLengthHdrS = "MaxValueLength =";

// The messages' shapes; X marks a number's room. Only their lengths are used: they are the least a writer reports and
// the least a reader takes. (The blank in "Flags = " and "Access = " is counted but not written.)
inline constexpr std::string_view CloseKeyReqMsgTemplateS = "Type01\r\nKeyHandle =0xXXXXXXXXXXXXXXXX\r\n\r\n";
inline constexpr std::string_view CloseKeyRespMsgTemplateS = "Status =XXXXXXXX\r\n\r\n";
inline constexpr std::string_view CreateKeyReqMsgTemplateS =
    "Type02\r\nParentKeyHandle =0xXXXXXXXXXXXXXXXX\r\nFlags = XXXXXXXX\r\nAccess = XXXXXXXX\r\nKeyName =\r\n\r\n";
inline constexpr std::string_view CreateKeyRespMsgTemplateS =
    "Status =XXXXXXXX\r\nKeyHandle =0xXXXXXXXXXXXXXXXX\r\nDisposition =XXXXXXXX\r\n\r\n";
inline constexpr std::string_view DeleteKeyReqMsgTemplateS =
    "Type03\r\nParentKeyHandle =0xXXXXXXXXXXXXXXXX\r\nKeyName =\r\n\r\n";
inline constexpr std::string_view DeleteKeyRespMsgTemplateS = "Status =XXXXXXXX\r\n\r\n";
inline constexpr std::string_view DeleteValueReqMsgTemplateS =
    "Type04\r\nKeyHandle =0xXXXXXXXXXXXXXXXX\r\nValueName =\r\n\r\n";
inline constexpr std::string_view DeleteValueRespMsgTemplateS = "Status =XXXXXXXX\r\n\r\n";
inline constexpr std::string_view EnumKeyReqMsgTemplateS =
    "Type05\r\nKeyHandle =0xXXXXXXXXXXXXXXXX\r\nIndex =XXXXXXXX\r\n\r\n";
inline constexpr std::string_view EnumKeyRespMsgTemplateS =
    "Status =XXXXXXXX\r\nLastWriteTime =XXXXXXXXXXXXXXXX\r\nSubKeyName =\r\n\r\n";
inline constexpr std::string_view EnumValueReqMsgTemplateS =
    "Type06\r\nKeyHandle =0xXXXXXXXXXXXXXXXX\r\nIndex =XXXXXXXX\r\n\r\n";
inline constexpr std::string_view EnumValueRespMsgTemplateS =
    "Status =XXXXXXXX\r\nValueType =XXXXXXXX\r\nValueName =\r\n\r\n";
inline constexpr std::string_view OpenKeyReqMsgTemplateS =
    "Type07\r\nParentKeyHandle =0xXXXXXXXXXXXXXXXX\r\nFlags = XXXXXXXX\r\nAccess = XXXXXXXX\r\nKeyName =\r\n\r\n";
inline constexpr std::string_view OpenKeyRespMsgTemplateS = "Status =XXXXXXXX\r\nKeyHandle =0xXXXXXXXXXXXXXXXX\r\n\r\n";
inline constexpr std::string_view QueryValueReqMsgTemplateS =
    "Type08\r\nKeyHandle =0xXXXXXXXXXXXXXXXX\r\nValueName =\r\n\r\n";
inline constexpr std::string_view QueryValueRespMsgTemplateS = "Status =XXXXXXXX\r\nValueType =XXXXXXXX\r\n\r\n";
inline constexpr std::string_view SetValueReqMsgTemplateS =
    "Type09\r\nKeyHandle =0xXXXXXXXXXXXXXXXX\r\nValueType =XXXXXXXX\r\nValueName =\r\n\r\n";
inline constexpr std::string_view SetValueRespMsgTemplateS = "Status =XXXXXXXX\r\n\r\n";
inline constexpr std::string_view QueryInfoKeyReqMsgTemplateS = "Type0A\r\nKeyHandle =0xXXXXXXXXXXXXXXXX\r\n\r\n";
inline constexpr std::string_view QueryInfoKeyRespMsgTemplateS =
    "Status =XXXXXXXX\r\nSubKeyCount =XXXXXXXX\r\nMaxSubKeyLength =XXXXXXXX\r\nMaxClassLength =XXXXXXXX\r\n"
    "ValueCount =XXXXXXXX\r\nMaxValueNameLength =XXXXXXXX\r\nMaxValueLength =XXXXXXXX\r\n"
    "LastWriteTime =XXXXXXXXXXXXXXXX\r\n\r\n";

extern uint32_t numCloseKeyReqMsgObjs, numCloseKeyRespMsgObjs;
extern uint32_t numCreateKeyReqMsgObjs, numCreateKeyRespMsgObjs;
extern uint32_t numDeleteKeyReqMsgObjs, numDeleteKeyRespMsgObjs;
extern uint32_t numDeleteValueReqMsgObjs, numDeleteValueRespMsgObjs;
extern uint32_t numEnumKeyReqMsgObjs, numEnumKeyRespMsgObjs;
extern uint32_t numEnumValueReqMsgObjs, numEnumValueRespMsgObjs;
extern uint32_t numOpenKeyReqMsgObjs, numOpenKeyRespMsgObjs;
extern uint32_t numQueryValueReqMsgObjs, numQueryValueRespMsgObjs;
extern uint32_t numSetValueReqMsgObjs, numSetValueRespMsgObjs;
extern uint32_t numQueryInfoKeyReqMsgObjs, numQueryInfoKeyRespMsgObjs;

class ReqMessage {
public:
    enum MessageTypes : int32_t {
        CloseKeyReqMsgType = 1,
        CreateKeyReqMsgType = 2,
        DeleteKeyReqMsgType = 3,
        DeleteValueReqMsgType = 4,
        EnumKeyReqMsgType = 5,
        EnumValueReqMsgType = 6,
        OpenKeyReqMsgType = 7,
        QueryValueReqMsgType = 8,
        SetValueReqMsgType = 9,
        QueryInfoKeyReqMsgType = 10,
        UnknownReqMsgType = 11,
    };

    /// The type of the request that begins at buff. Reads at most seven bytes and none after the first difference from
    /// every code; logs a type it does not know.
    static MessageTypes getReqMsgType(const char& buff);
};

/// What becomes of value data that an object is made from. Borrowing saves the copy of a value: 191 of 4,306
/// instructions where it is short, a third of the time of a round trip with 1 MiB in a 32-bit program.
enum class ValueData : uint8_t { Copied, Borrowed };

/// What the message classes have in common: one writer and one reader.
class Message {};

/// What a message that carries value data has besides its own fields.
class WithValueData : public Message {
public:
    char* m_pValueData = nullptr; // null exactly when the length is 0
    UINT32 m_valueDataLen = 0;

    /// Once. False when there is no memory for a copy.
    bool take(std::string_view data, ValueData valueData);

private:
    std::unique_ptr<char[]> m_pCopy;
};

struct MessageValues; // what the reader found; private to msgproto.cpp

/// The members that every message class has besides its constructor and its fields.
#define OBREG_MESSAGE_MEMBERS(Class)                                                                                   \
    Class(const Class&) = delete;                                                                                      \
    Class& operator=(const Class&) = delete;                                                                           \
    ~Class();                                                                                                          \
    void serialize(char** ppSerializedObj, int* pSerializedObjLen) const;                                              \
    static Class* deserialize(const char* pSerializedObj, int serializedObjLen,                                        \
                              ValueData valueData = ValueData::Copied);                                                \
                                                                                                                       \
private:                                                                                                               \
    explicit Class(const MessageValues& values)

class OpenKeyReqMsg : public Message {
public:
    HANDLE m_parentKeyHandle;
    std::string m_keyName;
    UINT32 m_flags;
    UINT32 m_access;

    OpenKeyReqMsg(HANDLE parentKeyHandle, const char* pKeyName, UINT32 flags, UINT32 access);
    OBREG_MESSAGE_MEMBERS(OpenKeyReqMsg);
};

class OpenKeyRespMsg : public Message {
public:
    REGSTATUS m_status;
    HANDLE m_keyHandle;

    OpenKeyRespMsg(REGSTATUS status, HANDLE keyHandle);
    OBREG_MESSAGE_MEMBERS(OpenKeyRespMsg);
};

class CreateKeyReqMsg : public Message {
public:
    HANDLE m_parentKeyHandle;
    std::string m_keyName;
    UINT32 m_flags;
    UINT32 m_access;

    CreateKeyReqMsg(HANDLE parentKeyHandle, const char* pKeyName, UINT32 flags, UINT32 access);
    OBREG_MESSAGE_MEMBERS(CreateKeyReqMsg);
};

class CreateKeyRespMsg : public Message {
public:
    REGSTATUS m_status;
    HANDLE m_keyHandle;
    UINT32 m_disposition;

    CreateKeyRespMsg(REGSTATUS status, HANDLE keyHandle, UINT32 disposition);
    OBREG_MESSAGE_MEMBERS(CreateKeyRespMsg);
};

class CloseKeyReqMsg : public Message {
public:
    HANDLE m_keyHandle;

    explicit CloseKeyReqMsg(HANDLE keyHandle);
    OBREG_MESSAGE_MEMBERS(CloseKeyReqMsg);
};

class CloseKeyRespMsg : public Message {
public:
    REGSTATUS m_status;

    explicit CloseKeyRespMsg(REGSTATUS status);
    OBREG_MESSAGE_MEMBERS(CloseKeyRespMsg);
};

class DeleteKeyReqMsg : public Message {
public:
    HANDLE m_parentKeyHandle;
    std::string m_keyName;

    DeleteKeyReqMsg(HANDLE parentKeyHandle, const char* pKeyName);
    OBREG_MESSAGE_MEMBERS(DeleteKeyReqMsg);
};

class DeleteKeyRespMsg : public Message {
public:
    REGSTATUS m_status;

    explicit DeleteKeyRespMsg(REGSTATUS status);
    OBREG_MESSAGE_MEMBERS(DeleteKeyRespMsg);
};

class SetValueReqMsg : public WithValueData {
public:
    HANDLE m_keyHandle;
    std::string m_valueName;
    UINT32 m_valueType;

    SetValueReqMsg(HANDLE keyHandle, const char* pValueName, UINT32 valueType, const char* pValueData,
                   UINT32 valueDataLen, ValueData valueData = ValueData::Copied);
    OBREG_MESSAGE_MEMBERS(SetValueReqMsg);
};

class SetValueRespMsg : public Message {
public:
    REGSTATUS m_status;

    explicit SetValueRespMsg(REGSTATUS status);
    OBREG_MESSAGE_MEMBERS(SetValueRespMsg);
};

class QueryValueReqMsg : public Message {
public:
    HANDLE m_keyHandle;
    std::string m_valueName;

    QueryValueReqMsg(HANDLE keyHandle, const char* pValueName);
    OBREG_MESSAGE_MEMBERS(QueryValueReqMsg);
};

class QueryValueRespMsg : public WithValueData {
public:
    REGSTATUS m_status;
    UINT32 m_valueType;

    QueryValueRespMsg(REGSTATUS status, UINT32 valueType, const char* pValueData, UINT32 valueDataLen,
                      ValueData valueData = ValueData::Copied);
    OBREG_MESSAGE_MEMBERS(QueryValueRespMsg);
};

class DeleteValueReqMsg : public Message {
public:
    HANDLE m_keyHandle;
    std::string m_valueName;

    DeleteValueReqMsg(HANDLE keyHandle, const char* pValueName);
    OBREG_MESSAGE_MEMBERS(DeleteValueReqMsg);
};

class DeleteValueRespMsg : public Message {
public:
    REGSTATUS m_status;

    explicit DeleteValueRespMsg(REGSTATUS status);
    OBREG_MESSAGE_MEMBERS(DeleteValueRespMsg);
};

class EnumKeyReqMsg : public Message {
public:
    HANDLE m_keyHandle;
    UINT32 m_index;

    EnumKeyReqMsg(HANDLE keyHandle, UINT32 index);
    OBREG_MESSAGE_MEMBERS(EnumKeyReqMsg);
};

class EnumKeyRespMsg : public Message {
public:
    REGSTATUS m_status;
    std::string m_subKeyName;
    UINT64 m_lastWriteTime;

    EnumKeyRespMsg(REGSTATUS status, const char* pSubKeyName, UINT64 lastWriteTime);
    OBREG_MESSAGE_MEMBERS(EnumKeyRespMsg);
};

class EnumValueReqMsg : public Message {
public:
    HANDLE m_keyHandle;
    UINT32 m_index;

    EnumValueReqMsg(HANDLE keyHandle, UINT32 index);
    OBREG_MESSAGE_MEMBERS(EnumValueReqMsg);
};

class EnumValueRespMsg : public WithValueData {
public:
    REGSTATUS m_status;
    std::string m_valueName;
    UINT32 m_valueType;

    EnumValueRespMsg(REGSTATUS status, const char* pValueName, UINT32 valueType, const char* pValueData,
                     UINT32 valueDataLen, ValueData valueData = ValueData::Copied);
    OBREG_MESSAGE_MEMBERS(EnumValueRespMsg);
};

class QueryInfoKeyReqMsg : public Message {
public:
    HANDLE m_keyHandle;

    explicit QueryInfoKeyReqMsg(HANDLE keyHandle);
    OBREG_MESSAGE_MEMBERS(QueryInfoKeyReqMsg);
};

class QueryInfoKeyRespMsg : public Message {
public:
    REGSTATUS m_status;
    UINT32 m_subKeyCount;
    UINT32 m_maxSubKeyLength;
    UINT32 m_maxClassLength;
    UINT32 m_valueCount;
    UINT32 m_maxValueNameLength;
    UINT32 m_maxValueLength;
    UINT64 m_lastWriteTime;

    QueryInfoKeyRespMsg(REGSTATUS status, UINT32 subKeyCount, UINT32 maxSubKeyLength, UINT32 maxClassLength,
                        UINT32 valueCount, UINT32 maxValueNameLength, UINT32 maxValueLength, UINT64 lastWriteTime);
    OBREG_MESSAGE_MEMBERS(QueryInfoKeyRespMsg);
};

#undef OBREG_MESSAGE_MEMBERS

#endif
