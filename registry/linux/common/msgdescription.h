// How a message is described, and the one writer and the one reader that serve every message from its description.
//
// Private to msgproto.cpp. To follow a message from its description to its bytes: read the description there, then
// write() here; the way back is scan().
//
// A description tells the members by their offsets in the class, so that a class stays plain data and the code below is
// compiled once.
#ifndef OBREG_COMMON_MSGDESCRIPTION_H
#define OBREG_COMMON_MSGDESCRIPTION_H

#include <algorithm>
#include <climits>
#include <cstddef>
#include <initializer_list>
#include <new>
#include <string>
#include <string_view>

#include "common/ipcint.h"
#include "common/msgproto.h"
#include "common/wiretext.h"
#include "platform.h"

/// A message's values as the reader found them; names and data point into the input.
struct MessageValues {
    UINT64 numbers[8]; // by field
    std::string_view name;
    std::string_view data;
    ValueData valueData;
};

namespace msgdescription {

using namespace wiretext;

enum class Kind : uint8_t { Number32, Number64, Handle, Name };

constexpr Kind kindOf(const UINT32*) { return Kind::Number32; }
constexpr Kind kindOf(const UINT64*) { return Kind::Number64; }
constexpr Kind kindOf(const HANDLE*) { return Kind::Handle; }
constexpr Kind kindOf(const std::string*) { return Kind::Name; }

/// One line of a message: its header, and the member that it carries.
struct Field {
    std::string_view header;
    Kind kind = Kind::Number32;
    size_t offset = 0;
};

inline constexpr size_t MaxFields = 8;
inline constexpr size_t None = SIZE_MAX;

/// All that sets one message apart from the others. The first four follow from the class's name; the rest says so only
/// where the message is special.
struct Description {
    const char* name;          // of the class, as the log shows it
    uint32_t* pLiveObjects;    // its num<Class>Objs
    std::string_view typeCode; // empty in a response
    size_t templateLength;     // what a writer reports at least, names and data not counted
    Field fields[MaxFields];   // in the order of the lines
    size_t fieldCount = 0;

    size_t nameOffset = None; // of the member of kind Name, where there is one
    size_t dataOffset = None; // of m_pValueData, where raw data follows the text
    size_t dataLenOffset = None;
    size_t ownDataOffset = None;
    size_t minLength;                // what a reader takes at least
    bool reportsWritten = false;     // the writer reports the bytes written, without padding
    const char* noBufferName;        // class name in the log line of a failed allocation
    bool incompleteIsSilent = false; // no log line for a missing field

    constexpr Description(const char* name_, uint32_t* pLiveObjects_, std::string_view typeCode_,
                          size_t templateLength_, std::initializer_list<Field> lines)
        : name(name_), pLiveObjects(pLiveObjects_), typeCode(typeCode_), templateLength(templateLength_), fields(),
          minLength(templateLength_), noBufferName(name_)
    {
        for (const Field& line : lines) {
            fields[fieldCount++] = line;
            if (line.kind == Kind::Name)
                nameOffset = line.offset;
        }
    }

    constexpr Description withData(size_t offset, size_t lenOffset, size_t ownOffset) const
    {
        Description msg = *this;
        msg.dataOffset = offset;
        msg.dataLenOffset = lenOffset;
        msg.ownDataOffset = ownOffset;
        return msg;
    }
    constexpr Description unpadded(size_t shortest) const
    {
        Description msg = *this;
        msg.reportsWritten = true;
        msg.minLength = shortest;
        return msg;
    }
    constexpr Description noBufferAs(const char* className) const
    {
        Description msg = *this;
        msg.noBufferName = className;
        return msg;
    }
    constexpr Description silentWhenIncomplete() const
    {
        Description msg = *this;
        msg.incompleteIsSilent = true;
        return msg;
    }
};

template <class Member>
Member& member(void* pMsg, size_t offset)
{
    return *reinterpret_cast<Member*>(static_cast<char*>(pMsg) + offset);
}

template <class Member>
const Member& member(const void* pMsg, size_t offset)
{
    return *reinterpret_cast<const Member*>(static_cast<const char*>(pMsg) + offset);
}

inline std::string_view orEmpty(const char* pName)
{
    return pName != nullptr ? std::string_view(pName) : std::string_view();
}

/// Sets the data member, whose length is set already.
inline void takeData(const Description& msg, void* pMsg, const char* pData, ValueData valueData)
{
    char*& pOwnData = member<char*>(pMsg, msg.ownDataOffset);
    const UINT32 length = member<UINT32>(pMsg, msg.dataLenOffset);
    pOwnData = nullptr;
    if (length != 0 && valueData == ValueData::Copied) {
        pOwnData = new (std::nothrow) char[length];
        if (pOwnData == nullptr) {
            IPC_ERROR("%s::%s- Unable to allocate buffer\n", msg.name, msg.name);
            throw std::bad_alloc();
        }
        std::copy_n(pData, length, pOwnData);
        pData = pOwnData;
    }
    member<char*>(pMsg, msg.dataOffset) = length != 0 ? const_cast<char*>(pData) : nullptr;
}

/// Completes a constructor: traces, takes name and data, counts the object. The other members are set already.
/// (Not inlined, here and below: GCC would check every case of the code against every class, and warn.)
[[gnu::noinline]] inline void construct(const Description& msg, void* pMsg, std::string_view name = {},
                                        const char* pData = nullptr, ValueData valueData = ValueData::Copied)
{
    IPC_TRACE("%s::%s- Start\n", msg.name, msg.name);
    if (msg.nameOffset != None)
        member<std::string>(pMsg, msg.nameOffset) = std::string(name);
    if (msg.dataOffset != None)
        takeData(msg, pMsg, pData, valueData);
    InterlockedIncrement(msg.pLiveObjects);
    IPC_TRACE("%s::%s- End\n", msg.name, msg.name);
}

/// Completes a constructor from what the reader found.
[[gnu::noinline]] inline void construct(const Description& msg, void* pMsg, const MessageValues& values)
{
    for (size_t i = 0; i < msg.fieldCount; ++i) {
        const Field& field = msg.fields[i];
        switch (field.kind) {
        case Kind::Number32:
            member<UINT32>(pMsg, field.offset) = static_cast<UINT32>(values.numbers[i]);
            break;
        case Kind::Number64:
            member<UINT64>(pMsg, field.offset) = values.numbers[i];
            break;
        case Kind::Handle:
            member<HANDLE>(pMsg, field.offset) = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(values.numbers[i]));
            break;
        case Kind::Name:
            break;
        }
    }
    if (msg.dataLenOffset != None)
        member<UINT32>(pMsg, msg.dataLenOffset) = static_cast<UINT32>(values.data.size());
    construct(msg, pMsg, values.name, values.data.data(), values.valueData);
}

[[gnu::noinline]] inline void destroy(const Description& msg, void* pMsg)
{
    IPC_TRACE("%s::~%s- Start\n", msg.name, msg.name);
    if (msg.ownDataOffset != None)
        delete[] member<char*>(pMsg, msg.ownDataOffset);
    InterlockedDecrement(msg.pLiveObjects);
    IPC_TRACE("%s::~%s- End\n", msg.name, msg.name);
}

inline char* putField(char* pOut, const Field& field, const void* pMsg)
{
    pOut = put(pOut, field.header);
    switch (field.kind) {
    case Kind::Number32:
        return putHex(pOut, member<UINT32>(pMsg, field.offset));
    case Kind::Number64:
        return putHex(pOut, member<UINT64>(pMsg, field.offset));
    case Kind::Handle:
        return putHandle(pOut, reinterpret_cast<uintptr_t>(member<HANDLE>(pMsg, field.offset)));
    case Kind::Name:
        return put(pOut, member<std::string>(pMsg, field.offset));
    }
    return pOut;
}

/// Bytes of the message as the template and the variable parts make them: the room it needs at most.
inline uint64_t roomFor(const Description& msg, const void* pMsg)
{
    uint64_t room = msg.templateLength;
    if (msg.nameOffset != None)
        room += member<std::string>(pMsg, msg.nameOffset).size();
    if (msg.dataLenOffset != None)
        room += member<UINT32>(pMsg, msg.dataLenOffset);
    return room;
}

/// The writer of every message.
[[gnu::noinline]] inline void write(const Description& msg, const void* pMsg, char** ppSerializedObj,
                                    int* pSerializedObjLen)
{
    IPC_TRACE("%s::serialize- Start\n", msg.name);
    *ppSerializedObj = nullptr;
    *pSerializedObjLen = 0;

    const uint64_t room = roomFor(msg, pMsg);
    char* const pBuffer = room <= INT_MAX ? new (std::nothrow) char[static_cast<size_t>(room)] : nullptr;
    if (pBuffer == nullptr) {
        IPC_ERROR("%s::serialize- Unable to allocate buffer\n", msg.noBufferName);
        IPC_TRACE("%s::serialize- End\n", msg.name);
        return;
    }

    char* pOut = pBuffer;
    if (!msg.typeCode.empty())
        pOut = put(put(pOut, msg.typeCode), Crlf);
    for (size_t i = 0; i < msg.fieldCount; ++i)
        pOut = put(putField(pOut, msg.fields[i], pMsg), Crlf);
    pOut = put(pOut, Crlf);
    if (msg.dataOffset != None)
        pOut = put(pOut, {member<char*>(pMsg, msg.dataOffset), member<UINT32>(pMsg, msg.dataLenOffset)});

    const auto written = static_cast<size_t>(pOut - pBuffer);
    const size_t reported = msg.reportsWritten ? written : static_cast<size_t>(room);
    std::memset(pOut, 0, reported - written);

    *ppSerializedObj = pBuffer;
    *pSerializedObjLen = static_cast<int>(reported);
    IPC_TRACE("%s::serialize- End\n", msg.name);
}

/// Reads the value that follows field i's header in its line.
inline void readField(const Field& field, size_t i, std::string_view line, MessageValues& values)
{
    const std::string_view text(line.data() + field.header.size(), line.size() - field.header.size());
    switch (field.kind) {
    case Kind::Number32:
        values.numbers[i] = readHex<UINT32>(text);
        break;
    case Kind::Number64:
        values.numbers[i] = readHex<UINT64>(text);
        break;
    case Kind::Handle:
        values.numbers[i] = readHex<uintptr_t>(text);
        break;
    case Kind::Name:
        values.name = text.substr(0, text.find('\0'));
        break;
    }
}

/// The line scan of every reader. True when every field was found.
inline bool scan(const Description& msg, std::string_view text, MessageValues& values)
{
    unsigned missing = (1u << msg.fieldCount) - 1; // bit i: field i not found yet

    LineWalker walker(text);
    std::string_view line;
    if (!msg.typeCode.empty() && !walker.next(line))
        return false;
    const bool hasData = msg.dataOffset != None;
    while ((missing != 0 || hasData) && walker.next(line) && !line.empty()) {
        for (size_t i = 0; missing >> i != 0; ++i) {
            if ((missing >> i & 1u) != 0 && startsWith(line, msg.fields[i].header)) {
                readField(msg.fields[i], i, line, values);
                missing &= ~(1u << i);
                break;
            }
        }
    }
    if (hasData)
        values.data = walker.rest();
    return missing == 0;
}

/// The reader of every message: true when `values` holds a whole one.
inline bool read(const Description& msg, const char* pSerializedObj, int serializedObjLen, MessageValues& values)
{
    IPC_TRACE("%s::deserialize- Start\n", msg.name);
    // A negative length is a huge unsigned one: it is long enough, but holds no line.
    if (static_cast<unsigned>(serializedObjLen) < msg.minLength) {
        IPC_ERROR("%s::deserialize- Serialized object lenght is too short\n", msg.name);
        return false;
    }
    const size_t length = serializedObjLen > 0 ? static_cast<size_t>(serializedObjLen) : 0;
    if (!scan(msg, {pSerializedObj, length}, values)) {
        if (!msg.incompleteIsSilent)
            IPC_ERROR("%s::deserialize- Not all parameters obtained\n", msg.name);
        return false;
    }
    return true;
}

} // namespace msgdescription

#endif
