// Carrier headers and messages: bytes, reading rules, log lines.
#include <cstdlib>
#include <memory>
#include <new>
#include <regex>
#include <typeinfo>

#include <gtest/gtest.h>

#include "common/channelproto.h"
#include "common/msgproto.h"
#include "fuzz/fuzz.h"
#include "support/log_capture.h"

namespace {

bool failArrays = false; // makes the codec's own array allocations fail

HANDLE handle(uintptr_t value) { return reinterpret_cast<HANDLE>(value); }

/// Reads from a block of exactly the text's length, so that AddressSanitizer sees a byte too many.
template <class Msg>
std::unique_ptr<Msg> decoded(const std::string& text)
{
    const fuzz::Block block(text);
    return std::unique_ptr<Msg>(Msg::deserialize(block.data(), block.size()));
}

/// What holds for every message: its bytes, that it reads back what it writes, and what it logs: when it lives, when
/// memory is short, when a text is too short and when one lacks its fields.
template <class Msg>
void expectMessage(const Msg& msg, size_t padding, size_t shortest, const std::string& text,
                   const std::string& noBufferName = {})
{
    const std::string name = std::string(typeid(Msg).name()).substr(2); // behind its length
    SCOPED_TRACE(name);
    const std::string bytes = encoded(msg);
    EXPECT_EQ(bytes, text + std::string(padding, '\0'));

    EXPECT_EQ(Msg::deserialize(bytes.data(), -5), nullptr);
    logcapture::take();
    logcapture::setDebugLevel(1);
    std::unique_ptr<Msg> back = decoded<Msg>(bytes);
    ASSERT_TRUE(back);
    char address[40];
    snprintf(address, sizeof(address), "%p", static_cast<void*>(back.get()));
    EXPECT_EQ(encoded(*back), bytes);
    back.reset();
    logcapture::setDebugLevel(0);

    failArrays = true;
    EXPECT_EQ(encoded(msg), "");
    failArrays = false;
    EXPECT_EQ(decoded<Msg>(bytes.substr(0, shortest - 1)), nullptr);
    EXPECT_EQ(decoded<Msg>("Type01\r\n" + std::string(std::max(shortest, bytes.size()), '#')), nullptr);
    std::string log;
    for (const std::string& line : logcapture::take())
        log += line;
    const std::string expected =
        "15 N::deserialize- Start\n15 N::N- Start\n15 N::N- End\n15 N::deserialize- End, retObj = " +
        std::string(address) + "\n15 N::serialize- Start\n15 N::serialize- End\n15 N::~N- Start\n15 N::~N- End\n14 " +
        (noBufferName.empty() ? "N" : noBufferName) +
        "::serialize- Unable to allocate buffer\n14 N::deserialize- Serialized object lenght is too short\n" +
        (name == "SetValueRespMsg" ? "" : "14 N::deserialize- Not all parameters obtained\n");
    EXPECT_EQ(log, std::regex_replace(expected, std::regex("\\bN\\b"), name));
}

} // namespace

[[gnu::noinline]] void* operator new[](size_t size, const std::nothrow_t&) noexcept
{
    return failArrays ? nullptr : operator new[](size);
}

TEST(Codec, EveryMessage)
{
    const std::string data("\r\n\r\nStatus =1\0\r", 16);
    const auto n = static_cast<UINT32>(data.size());
    const uint64_t time = 0x01D2C3B4A5968778;
    const HANDLE h = handle(0x1F);
    const HANDLE wide = handle(0xFEDCBA98);

    expectMessage(
        OpenKeyReqMsg(h, "Software", 1, 0xF003F), 16, 95,
        "Type07\r\nParentKeyHandle =0x1f\r\nFlags =00000001\r\nAccess =000F003F\r\nKeyName =Software\r\n\r\n");
    expectMessage(OpenKeyRespMsg(0xC7F10001, nullptr), 13, 51, "Status =C7F10001\r\nKeyHandle =(nil)\r\n\r\n");
    expectMessage(CreateKeyReqMsg(wide, nullptr, 0, 0), 10, 95,
                  "Type02\r\nParentKeyHandle =0xfedcba98\r\nFlags =00000000\r\nAccess =00000000\r\nKeyName =\r\n\r\n");
    expectMessage(CreateKeyRespMsg(0, h, 2), 14, 74,
                  "Status =00000000\r\nKeyHandle =0x1f\r\nDisposition =00000002\r\n\r\n");
    expectMessage(CloseKeyReqMsg(h), 14, 41, "Type01\r\nKeyHandle =0x1f\r\n\r\n");
    expectMessage(CloseKeyRespMsg(7), 0, 20, "Status =00000007\r\n\r\n");
    expectMessage(DeleteKeyReqMsg(nullptr, "a\\b"), 13, 58,
                  "Type03\r\nParentKeyHandle =(nil)\r\nKeyName =a\\b\r\n\r\n");
    expectMessage(DeleteKeyRespMsg(7), 0, 20, "Status =00000007\r\n\r\n", "DeleteKeyMsg");
    expectMessage(SetValueReqMsg(handle(1), "", 3, nullptr, 0), 0, 60,
                  "Type09\r\nKeyHandle =0x1\r\nValueType =00000003\r\nValueName =\r\n\r\n");
    expectMessage(SetValueReqMsg(h, "v", 3, data.data(), n), 0, 60,
                  "Type09\r\nKeyHandle =0x1f\r\nValueType =00000003\r\nValueName =v\r\n\r\n" + data);
    expectMessage(SetValueRespMsg(0), 0, 20, "Status =00000000\r\n\r\n");
    expectMessage(QueryValueReqMsg(h, "v"), 14, 54, "Type08\r\nKeyHandle =0x1f\r\nValueName =v\r\n\r\n", "Msg");
    expectMessage(QueryValueRespMsg(0, 1, data.data(), n), 0, 41,
                  "Status =00000000\r\nValueType =00000001\r\n\r\n" + data);
    expectMessage(DeleteValueReqMsg(h, "v"), 14, 54, "Type04\r\nKeyHandle =0x1f\r\nValueName =v\r\n\r\n");
    expectMessage(DeleteValueRespMsg(0), 0, 20, "Status =00000000\r\n\r\n");
    expectMessage(EnumKeyReqMsg(h, 0xFFFFFFFF), 14, 58, "Type05\r\nKeyHandle =0x1f\r\nIndex =FFFFFFFF\r\n\r\n");
    expectMessage(EnumKeyRespMsg(0, "sub", time), 0, 67,
                  "Status =00000000\r\nLastWriteTime =01D2C3B4A5968778\r\nSubKeyName =sub\r\n\r\n");
    expectMessage(EnumValueReqMsg(h, 3), 14, 58, "Type06\r\nKeyHandle =0x1f\r\nIndex =00000003\r\n\r\n");
    expectMessage(EnumValueRespMsg(0, "name", 4, data.data(), n), 0, 54,
                  "Status =00000000\r\nValueType =00000004\r\nValueName =name\r\n\r\n" + data, "EnumValueRespMsgMsg");
    expectMessage(QueryInfoKeyReqMsg(h), 14, 41, "Type0A\r\nKeyHandle =0x1f\r\n\r\n", "Msg");
    expectMessage(
        QueryInfoKeyRespMsg(0, 1, 2, 3, 4, 5, 6, time), 0, 207,
        "Status =00000000\r\nSubKeyCount =00000001\r\nMaxSubKeyLength =00000002\r\nMaxClassLength =00000003\r\n"
        "ValueCount =00000004\r\nMaxValueNameLength =00000005\r\nMaxValueLength =00000006\r\n"
        "LastWriteTime =01D2C3B4A5968778\r\n\r\n");
    if (sizeof(HANDLE) == 8)
        expectMessage(CloseKeyReqMsg(handle(static_cast<uintptr_t>(0xFEDCBA9876543210))), 0, 41,
                      "Type01\r\nKeyHandle =0xfedcba9876543210\r\n\r\n");
    EXPECT_EQ(numOpenKeyReqMsgObjs + numSetValueReqMsgObjs + numEnumValueRespMsgObjs + numQueryInfoKeyRespMsgObjs, 0u);
}

TEST(Codec, LengthsStayWithinAnInt)
{
    QueryValueRespMsg tooLong(0, 1, nullptr, 0);
    tooLong.m_valueDataLen = INT32_MAX; // with the text, more than an int can report
    EXPECT_EQ(encoded(tooLong), "");
    tooLong.m_valueDataLen = 0;
    logcapture::take();
}

TEST(Codec, ReaderIsGenerous)
{
    const std::pair<std::string, bool> cases[] = {
        // text, understood
        {"Disposition =3\r\nJunk\r\n\rKeyHandle =9\r\nKeyHandle =2\r\nStatus =1\r\n\r\n", true},
        {"Status =1\r\nStatus =8\r\nKeyHandle =2\r\nDisposition =3\r\nStatus =9\r\n", true}, // the first counts
        {"Status =\r1\r\nKeyHandle =2\n5\r\nDisposition =3\r\n", true}, // a lone CR or LF is an ordinary byte
        {"status =1\r\nKeyHandle =2\r\nDisposition =3\r\n\r\n", false},
        {"Status =1\r\nKeyHandle =2\r\n\r\nDisposition =3\r\n", false}, // after the empty line
    };
    const std::string same = encoded(CreateKeyRespMsg(1, handle(2), 3));
    for (const auto& [text, understood] : cases) {
        const auto msg = decoded<CreateKeyRespMsg>(text + std::string(100, '.'));
        EXPECT_EQ(msg != nullptr ? encoded(*msg) : "", understood ? same : "") << text;
    }

    // Data is what follows the empty line, or what the walk left over when there is none.
    const std::pair<std::string, std::string> dataCases[] = {
        {"Status =00000000\r\nValueType =00000001\r\n\r\n\r", "\r"},
        {"Status =00000000\r\nValueType =00000000001\r\n", ""},
        {"Status =00000000\r\nValueType =00000000001\r\nxyz", "z"},
    };
    for (const auto& [text, data] : dataCases) {
        const auto msg = decoded<QueryValueRespMsg>(text);
        ASSERT_TRUE(msg);
        EXPECT_EQ(std::string(msg->m_pValueData ? msg->m_pValueData : "", msg->m_valueDataLen), data) << text;
    }

    const auto cut =
        decoded<DeleteValueReqMsg>("anything\r\nKeyHandle =1\r\nValueName =ab" + std::string(40, '\0') + "c\r\n");
    ASSERT_TRUE(cut);
    EXPECT_EQ(cut->m_valueName, "ab");
    logcapture::take();
}

TEST(Carrier, HeadersHaveTheirBytes)
{
    char header[56] = {};
    EXPECT_EQ(ChannelProto::buildReqDataPktHdr(0x1F, 0x67, header), 0);
    EXPECT_STREQ(header, "Type01\r\nReqIdHdr =0000001F\r\nPayloadLength =00000067\r\n\r\n");
    EXPECT_EQ(ChannelProto::buildReqErrorPktHdr(0xFFFFFFFF, -1, header), 0);
    EXPECT_STREQ(header, "Type02\r\nReqIdHdr =FFFFFFFF\r\nPayloadLength =FFFFFFFF\r\n\r\n");
}

TEST(Carrier, FieldsAreFoundWhereTheyMayBe) // how numbers are read: fuzz/carrier_fuzz.cpp
{
    const struct {
        std::string text;
        bool found;
        uint32_t id;
        int length;
    } cases[] = {
        {"x\r\nReqIdHdr =1f\r\n\rnoise\r\nPayloadLength =-2\r\nReqIdHdr =3\r\n", true, 0x1F, -2},
        {"\r\nPayloadLength =1\r\nPayloadLength =2\r\nReqIdHdr =3\r\nPayloadLength =5\r\n", true, 3, 2},
        {"ReqIdHdr =1\r\nPayloadLength =2\r\n", false, 77, 2}, // the first line is the type, whatever it says
        {"x\r\nReqIdHdr =1\r\nReqIdHdr =2\r\n\r\nPayloadLength =2\r\n", false, 1, 77},
        {"x\r\nReqIdHdr =1\r\nPayloadLength =2\r", false, 1, 77},
    };
    for (const auto& test : cases) {
        uint32_t id = 77;
        int length = 77;
        const fuzz::Block block(test.text);
        EXPECT_EQ(ChannelProto::getReqIdAndPayloadLength(block.data(), block.size(), &id, &length), test.found);
        EXPECT_EQ(std::pair(id, length), std::pair(test.id, test.length)) << test.text;
    }
}
