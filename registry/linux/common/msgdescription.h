// How a message is described, and the one writer and the one reader that serve every message from its description.
//
// Private to msgproto.cpp. To follow a message from its description to its bytes: read the description there, then
// write() here; the way back is scan().
//
// A description has pointers to members, taken for members of the classes' common base: so a class stays plain data,
// and the code below is compiled once.
#ifndef OBREG_COMMON_MSGDESCRIPTION_H
#define OBREG_COMMON_MSGDESCRIPTION_H

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

/// One line of a message: its header, and the member that it carries.
struct Field {
    std::string_view header;
    Kind kind = Kind::Number32;
    union {
        UINT32 Message::*pNumber32 = nullptr;
        UINT64 Message::*pNumber64;
        HANDLE Message::*pHandle;
        std::string Message::*pName;
    };

    constexpr Field() = default;
    constexpr Field(std::string_view h, UINT32 Message::*p) : header(h), pNumber32(p) {}
    constexpr Field(std::string_view h, UINT64 Message::*p) : header(h), kind(Kind::Number64), pNumber64(p) {}
    constexpr Field(std::string_view h, HANDLE Message::*p) : header(h), kind(Kind::Handle), pHandle(p) {}
    constexpr Field(std::string_view h, std::string Message::*p) : header(h), kind(Kind::Name), pName(p) {}
};

/// The line of a member, whose type says how its value is written.
template <class Class, class Member>
constexpr Field line(Member Class::*pMember, std::string_view header)
{
    return {header, static_cast<Member Message::*>(pMember)};
}

inline constexpr size_t MaxFields = 8;

/// All that sets one message apart from the others. The first three follow from the class's name; the rest says so only
/// where the message is special.
struct Description {
    const char* name;        // of the class, as the log shows it
    uint32_t* pLiveObjects;  // its num<Class>Objs
    size_t templateLength;   // what a writer reports at least, names and data not counted
    Field fields[MaxFields]; // in the order of the lines
    size_t fieldCount = 0;

    std::string Message::*pName = nullptr; // where there is one among the fields
    std::string_view typeCode{};           // empty in a response
    bool hasData = false;                  // it is a WithValueData: raw data follows the text
    size_t minLength;                      // what a reader takes at least
    bool reportsWritten = false;           // the writer reports the bytes written, without padding
    const char* noBufferName;              // class name in the log line of a failed allocation
    bool incompleteIsSilent = false;       // no log line for a missing field

    constexpr Description(const char* name_, uint32_t* pLiveObjects_, size_t templateLength_,
                          std::initializer_list<Field> lines)
        : name(name_), pLiveObjects(pLiveObjects_), templateLength(templateLength_), minLength(templateLength_),
          noBufferName(name_)
    {
        for (const Field& line : lines) {
            fields[fieldCount++] = line;
            if (line.kind == Kind::Name)
                pName = line.pName;
        }
    }

    constexpr Description ofType(std::string_view code) const
    {
        Description msg = *this;
        msg.typeCode = code;
        return msg;
    }
    constexpr Description withData() const
    {
        Description msg = *this;
        msg.hasData = true;
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

inline std::string_view orEmpty(const char* pName)
{
    return pName != nullptr ? std::string_view(pName) : std::string_view();
}

/// The name and the value data of a message that has them; empty else.
inline std::string_view nameOf(const Description& description, const Message& msg)
{
    return description.pName != nullptr ? msg.*description.pName : std::string_view();
}
inline std::string_view dataOf(const Description& description, const Message& msg)
{
    if (!description.hasData)
        return {};
    const auto& carrier = static_cast<const WithValueData&>(msg);
    return {carrier.m_pValueData, carrier.m_valueDataLen};
}

/// Completes a constructor: traces, takes name and data, counts the object. The other members are set already.
/// (Not inlined, here and below: GCC would check every case of the code against every class, and warn.)
[[gnu::noinline]] inline void construct(const Description& description, Message& msg, std::string_view name = {},
                                        std::string_view data = {}, ValueData valueData = ValueData::Copied)
{
    IPC_TRACE("%s::%s- Start\n", description.name, description.name);
    if (description.pName != nullptr)
        msg.*description.pName = std::string(name); // moved in: half the price of an assignment
    if (description.hasData && !static_cast<WithValueData&>(msg).take(data, valueData)) {
        IPC_ERROR("%s::%s- Unable to allocate buffer\n", description.name, description.name);
        throw std::bad_alloc();
    }
    InterlockedIncrement(description.pLiveObjects);
    IPC_TRACE("%s::%s- End\n", description.name, description.name);
}

/// The whole of a constructor that makes an object of what the reader found.
[[gnu::noinline]] inline void assign(const Description& description, Message& msg, const MessageValues& values)
{
    for (size_t i = 0; i < description.fieldCount; ++i) {
        const Field& field = description.fields[i];
        switch (field.kind) {
        case Kind::Number32:
            msg.*field.pNumber32 = static_cast<UINT32>(values.numbers[i]);
            break;
        case Kind::Number64:
            msg.*field.pNumber64 = values.numbers[i];
            break;
        case Kind::Handle:
            msg.*field.pHandle = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(values.numbers[i]));
            break;
        case Kind::Name:
            break;
        }
    }
    construct(description, msg, values.name, values.data, values.valueData);
}

[[gnu::noinline]] inline void destroy(const Description& description)
{
    IPC_TRACE("%s::~%s- Start\n", description.name, description.name);
    InterlockedDecrement(description.pLiveObjects);
    IPC_TRACE("%s::~%s- End\n", description.name, description.name);
}

inline char* putField(char* pOut, const Field& field, const Message& msg)
{
    pOut = put(pOut, field.header);
    switch (field.kind) {
    case Kind::Number32:
        return putHex(pOut, msg.*field.pNumber32);
    case Kind::Number64:
        return putHex(pOut, msg.*field.pNumber64);
    case Kind::Handle:
        return putHandle(pOut, reinterpret_cast<uintptr_t>(msg.*field.pHandle));
    case Kind::Name:
        return put(pOut, msg.*field.pName);
    }
    return pOut;
}

/// Bytes of the message as the template and the variable parts make them: the room it needs at most.
inline uint64_t roomFor(const Description& description, const Message& msg)
{
    return uint64_t{description.templateLength} + nameOf(description, msg).size() + dataOf(description, msg).size();
}

/// The writer of every message.
[[gnu::noinline]] inline void write(const Description& description, const Message& msg, char** ppSerializedObj,
                                    int* pSerializedObjLen)
{
    IPC_TRACE("%s::serialize- Start\n", description.name);
    *ppSerializedObj = nullptr;
    *pSerializedObjLen = 0;

    const uint64_t room = roomFor(description, msg);
    char* const pBuffer = room <= INT_MAX ? new (std::nothrow) char[static_cast<size_t>(room)] : nullptr;
    if (pBuffer == nullptr) {
        IPC_ERROR("%s::serialize- Unable to allocate buffer\n", description.noBufferName);
        IPC_TRACE("%s::serialize- End\n", description.name);
        return;
    }

    char* pOut = pBuffer;
    if (!description.typeCode.empty())
        pOut = put(put(pOut, description.typeCode), Crlf);
    for (size_t i = 0; i < description.fieldCount; ++i)
        pOut = put(putField(pOut, description.fields[i], msg), Crlf);
    pOut = put(put(pOut, Crlf), dataOf(description, msg));

    const auto written = static_cast<size_t>(pOut - pBuffer);
    const size_t reported = description.reportsWritten ? written : static_cast<size_t>(room);
    std::memset(pOut, 0, reported - written);

    *ppSerializedObj = pBuffer;
    *pSerializedObjLen = static_cast<int>(reported);
    IPC_TRACE("%s::serialize- End\n", description.name);
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
inline bool scan(const Description& description, std::string_view text, MessageValues& values)
{
    unsigned missing = (1u << description.fieldCount) - 1; // bit i: field i not found yet

    LineWalker walker(text);
    std::string_view line;
    if (!description.typeCode.empty() && !walker.next(line))
        return false;
    const bool hasData = description.hasData;
    while ((missing != 0 || hasData) && walker.next(line) && !line.empty()) {
        for (size_t i = 0; missing >> i != 0; ++i) {
            if ((missing >> i & 1u) != 0 && startsWith(line, description.fields[i].header)) {
                readField(description.fields[i], i, line, values);
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
inline bool read(const Description& description, const char* pSerializedObj, int serializedObjLen,
                 MessageValues& values)
{
    IPC_TRACE("%s::deserialize- Start\n", description.name);
    // A negative length is a huge unsigned one: it is long enough, but holds no line.
    if (static_cast<unsigned>(serializedObjLen) < description.minLength) {
        IPC_ERROR("%s::deserialize- Serialized object lenght is too short\n", description.name);
        return false;
    }
    const size_t length = serializedObjLen > 0 ? static_cast<size_t>(serializedObjLen) : 0;
    if (!scan(description, {pSerializedObj, length}, values)) {
        if (!description.incompleteIsSilent)
            IPC_ERROR("%s::deserialize- Not all parameters obtained\n", description.name);
        return false;
    }
    return true;
}

} // namespace msgdescription

#endif
