// The carrier: the 55-byte text header in front of everything that crosses the socket.
//
//   Type01\r\n                     Type01 data, Type02 error
//   ReqIdHdr =0000001F\r\n         id of the request that this is, or answers
//   PayloadLength =00000067\r\n    bytes that follow a data header; nothing follows an error header
//   \r\n
//
// Writers always write exactly these 55 bytes. A receiver reads 55 bytes, then getReqIdAndPayloadLength, then
// getPktType, then the payload of a data packet. Readers are generous: fewer digits, blanks, "0x", lower case, either
// order of the two lines, other lines between them, and anything after the empty line.
//
// Everything here is stateless and may run on any thread.
#ifndef OBREG_COMMON_CHANNELPROTO_H
#define OBREG_COMMON_CHANNELPROTO_H

#include <string_view>

#include "common/ipcint.h"

inline constexpr std::string_view DataCarrierTypeTemplate = "TypeXX";
inline constexpr std::string_view ReqDataCarrierType = "Type01";
inline constexpr std::string_view ReqErrorCarrierType = "Type02";
inline constexpr std::string_view ReqIdHdr = "ReqIdHdr =";
inline constexpr std::string_view PayloadLengthHdr = "PayloadLength =";
inline constexpr std::string_view ReqDataPktHdrTemplate =
    "Type01\r\nReqIdHdr =XXXXXXXX\r\nPayloadLength =XXXXXXXX\r\n\r\n";
inline constexpr std::string_view ReqErrorPktHdrTemplate =
    "Type02\r\nReqIdHdr =XXXXXXXX\r\nPayloadLength =XXXXXXXX\r\n\r\n";

/// Bytes of a header, in either direction.
inline constexpr int PktHdrLength = static_cast<int>(ReqDataPktHdrTemplate.size());

/// The longest payload that a receiver of this code base takes: 256 MiB. A header that announces more, or a negative
/// length, ends the connection before anything is allocated.
inline constexpr int MaxPayloadLength = 256 * 1024 * 1024;

class ChannelProto {
public:
    enum PacketTypes : int32_t {
        ReqDataCarrierPacketType = 1,
        ReqErrorCarrierPacketType = 2,
        UnknownPacketType = 3,
    };

    /// Writes a data header into the PktHdrLength bytes at pPktHdr, without a NUL. Returns 0, or -1 when it could not
    /// (the block must not be sent then).
    static int buildReqDataPktHdr(uint32_t reqId, int payloadLength, char* pPktHdr);

    /// The same for an error header.
    static int buildReqErrorPktHdr(uint32_t reqId, int payloadLength, char* pPktHdr);

    /// The type of the header that begins at buff. Reads at most seven bytes and none after the first difference;
    /// logs a type it does not know.
    static PacketTypes getPktType(const char& buff);

    /// Reads request id and payload length from the hdrLength bytes at pBuff. True when both were found; a field that
    /// was found is stored even when the other was not.
    static bool getReqIdAndPayloadLength(const char* pBuff, int hdrLength, uint32_t* pReqId, int* pPayloadLength);
};

#endif
