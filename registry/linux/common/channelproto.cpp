#include "common/channelproto.h"

#include "common/wiretext.h"

using namespace wiretext;

namespace {

static_assert(ReqDataPktHdrTemplate.size() == 55 && ReqErrorPktHdrTemplate.size() == 55);

int buildHdr(const char* pOperation, std::string_view type, uint32_t reqId, int payloadLength, char* pPktHdr)
{
    IPC_TRACE("ChannelProto::%s- Start\n", pOperation);
    char* pOut = put(pPktHdr, type);
    pOut = put(pOut, Crlf);
    pOut = put(pOut, ReqIdHdr);
    pOut = putHex(pOut, reqId);
    pOut = put(pOut, Crlf);
    pOut = put(pOut, PayloadLengthHdr);
    pOut = putHex(pOut, static_cast<uint32_t>(payloadLength));
    pOut = put(pOut, Crlf);
    put(pOut, Crlf);
    IPC_TRACE("ChannelProto::%s- End, retStatus = %#x\n", pOperation, 0u);
    return 0;
}

/// The number after `header` in a line that begins with it.
uint32_t valueAfter(std::string_view line, std::string_view header)
{
    return readHex<uint32_t>({line.data() + header.size(), line.size() - header.size()});
}

} // namespace

int ChannelProto::buildReqDataPktHdr(uint32_t reqId, int payloadLength, char* pPktHdr)
{
    return buildHdr("buildReqDataPktHdr", ReqDataCarrierType, reqId, payloadLength, pPktHdr);
}

int ChannelProto::buildReqErrorPktHdr(uint32_t reqId, int payloadLength, char* pPktHdr)
{
    return buildHdr("buildReqErrorPktHdr", ReqErrorCarrierType, reqId, payloadLength, pPktHdr);
}

ChannelProto::PacketTypes ChannelProto::getPktType(const char& buff)
{
    IPC_TRACE("ChannelProto::getPktType- Start\n");
    PacketTypes type = UnknownPacketType;
    if (lineIs(&buff, ReqDataCarrierType))
        type = ReqDataCarrierPacketType;
    else if (lineIs(&buff, ReqErrorCarrierType))
        type = ReqErrorCarrierPacketType;
    else
        IPC_ERROR("ChannelProto::getPktType- No match found\n");
    IPC_TRACE("ChannelProto::getPktType- End, type = %d\n", static_cast<int>(type));
    return type;
}

bool ChannelProto::getReqIdAndPayloadLength(const char* pBuff, int hdrLength, uint32_t* pReqId, int* pPayloadLength)
{
    IPC_TRACE("ChannelProto::getReqIdAndPayloadLength- Start\n");
    bool idFound = false;
    bool lengthFound = false;
    LineWalker walker({pBuff, hdrLength > 0 ? static_cast<size_t>(hdrLength) : 0});
    std::string_view line;
    walker.next(line); // the packet type, not looked at here
    while (!(idFound && lengthFound) && walker.next(line) && !line.empty()) {
        if (!idFound && startsWith(line, ReqIdHdr)) {
            *pReqId = valueAfter(line, ReqIdHdr);
            idFound = true;
        } else if (startsWith(line, PayloadLengthHdr)) {
            // Until the id is found, a later length line replaces an earlier one.
            *pPayloadLength = static_cast<int>(valueAfter(line, PayloadLengthHdr));
            lengthFound = true;
        }
    }
    const bool retStatus = idFound && lengthFound;
    IPC_TRACE("ChannelProto::getReqIdAndPayloadLength- End, retStatus = %#x\n", retStatus ? 1u : 0u);
    return retStatus;
}
