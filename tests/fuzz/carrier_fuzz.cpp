// Carrier headers and the number reader: what is read is what a plain reading of the rules and the C library say.
#include <optional>

#include "common/channelproto.h"
#include "common/wiretext.h"
#include "fuzz/fuzz.h"

int CDebugLevel = 0;

namespace {

/// The C library's unsigned base-16 conversion where a long has 32 bits, from the one that has 64.
uint32_t toUint32(const std::string& text)
{
    const size_t sign = text.find_first_not_of(" \t\n\v\f\r");
    const bool negative = sign != std::string::npos && text[sign] == '-';
    const size_t digits = negative || (sign != std::string::npos && text[sign] == '+') ? sign + 1 : sign;
    if (digits >= text.size() || std::strchr(" \t\n\v\f\r+-", text[digits]) != nullptr)
        return 0; // after a sign nothing but digits counts
    const unsigned long long value = std::strtoull(text.c_str() + digits, nullptr, 16);
    if (value > UINT32_MAX)
        return UINT32_MAX;
    return static_cast<uint32_t>(negative ? 0 - value : value);
}

struct Fields {
    std::optional<uint32_t> id, length;
};

/// The rules, one after the other.
Fields plainReading(std::string text)
{
    Fields fields;
    for (bool first = true; !(fields.id && fields.length); first = false) {
        const size_t end = text.find("\r\n");
        if (end == std::string::npos || (!first && end == 0))
            break;
        const std::string line = text.substr(0, end);
        text.erase(0, end + 2);
        const auto begins = [&](std::string_view header) {
            return line.size() >= header.size() && line.compare(0, header.size(), header) == 0;
        };
        if (first)
            continue;
        if (!fields.id && begins(ReqIdHdr))
            fields.id = toUint32(line.substr(ReqIdHdr.size()));
        else if (begins(PayloadLengthHdr))
            fields.length = toUint32(line.substr(PayloadLengthHdr.size()));
    }
    return fields;
}

void checkHeader(std::string_view input)
{
    const fuzz::Block block(input);
    uint32_t id = 0x5A5A5A5A;
    int length = 0x5A5A5A5A;
    const bool found = ChannelProto::getReqIdAndPayloadLength(block.data(), block.size(), &id, &length);
    HOLDS(block.unchanged());
    const Fields expected = plainReading(std::string(input));
    HOLDS(found == (expected.id && expected.length));
    HOLDS(id == expected.id.value_or(0x5A5A5A5A));
    HOLDS(static_cast<uint32_t>(length) == expected.length.value_or(0x5A5A5A5A));
    if (found)
        ChannelProto::getPktType(*block.data());

    char header[PktHdrLength];
    ChannelProto::buildReqDataPktHdr(id, length, header);
    uint32_t idAgain = 0;
    int lengthAgain = 0;
    HOLDS(ChannelProto::getReqIdAndPayloadLength(header, PktHdrLength, &idAgain, &lengthAgain));
    HOLDS(idAgain == id && lengthAgain == length);
    HOLDS(ChannelProto::getPktType(*header) == ChannelProto::ReqDataCarrierPacketType);
}

void checkNumber(std::string_view input)
{
    const fuzz::Block block(input);
    const std::string_view text(block.data(), input.size());
    const std::string terminated(input);
    HOLDS(wiretext::readHex<uint64_t>(text) == std::strtoull(terminated.c_str(), nullptr, 16));
    const auto number = wiretext::readHex<uint32_t>(text);
    HOLDS(number == toUint32(terminated.c_str())); // up to the first NUL
    if (sizeof(unsigned long) == 4)
        HOLDS(number == std::strtoul(terminated.c_str(), nullptr, 16));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t size)
{
    const std::string_view input(reinterpret_cast<const char*>(pData), size);
    checkHeader(input);
    checkHeader(input.substr(0, PktHdrLength));
    checkNumber(input);
    if (const size_t at = input.find('='); at != std::string_view::npos)
        checkNumber(input.substr(at + 1));
    return 0;
}
