// Carrier headers and the number reader: what is written is read back, and numbers are what the C library says.
#include "common/channelproto.h"
#include "common/wiretext.h"
#include "fuzz/fuzz.h"

int CDebugLevel = 0;

namespace {

void checkHeader(std::string_view input)
{
    const fuzz::Block block(input);
    uint32_t id = 0x5A5A5A5A;
    int length = 0x5A5A5A5A;
    const bool found = ChannelProto::getReqIdAndPayloadLength(block.data(), block.size(), &id, &length);
    HOLDS(block.unchanged());
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
    const std::string terminated(input); // up to the first NUL
    HOLDS(wiretext::readHex<uint64_t>(text) == std::strtoull(terminated.c_str(), nullptr, 16));
    if constexpr (sizeof(unsigned long) == 4)
        HOLDS(wiretext::readHex<uint32_t>(text) == std::strtoul(terminated.c_str(), nullptr, 16));
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
