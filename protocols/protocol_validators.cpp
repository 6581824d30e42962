// LDAP and TLS first messages; see the header.
#include "protocols/protocol_validators.h"

#include "protocols/byte_reader.h"

namespace {

constexpr std::uint32_t kMaxHelloRecord = 1024;
constexpr std::uint8_t kTlsHandshake = 0x16;
constexpr std::uint8_t kSsl2Header = 0x80;  // and all above: the high bit of the record's length
constexpr std::uint8_t kClientHello = 1;
constexpr std::uint8_t kBerInteger = 0x02;
constexpr std::uint8_t kBerSequence = 0x30;

ByteReader ClientBytes(const ProtocolSample& sample) {
    ByteReader reader;
    reader.Append({sample.clientLength, sample.clientData});
    return reader;
}

/// The first byte, which rules most data out; none when there is no data.
int FirstByte(const ProtocolSample& sample) {
    constexpr int kNone = -1;
    return sample.clientLength > 0 ? *static_cast<const std::uint8_t*>(sample.clientData) : kNone;
}

/// Versions 3.0 to 3.3: what later versions say in a hello as well.
bool ReadTlsVersion(ByteReader& reader) {
    std::uint32_t version = 0;
    return reader.ReadBigEndian(2, version) && version >= 0x0300 && version <= 0x0303;
}

/// After the record type.
int JudgeTlsRecord(ByteReader& reader) {
    std::uint32_t recordLength = 0;
    if (!ReadTlsVersion(reader) || !reader.ReadBigEndian(2, recordLength)) return kNoMatch;
    if (recordLength > kMaxHelloRecord) return kNoMatch;
    if (reader.Remaining() < recordLength) return kUndecided;
    // Bytes behind the record are not the hello's, so a record too short for the fields is none.
    if (recordLength < 6) return kNoMatch;
    std::uint8_t type = 0;
    std::uint32_t lengthHighByte = 0;
    std::uint32_t length = 0;
    reader.ReadByte(type);
    reader.ReadBigEndian(1, lengthHighByte);  // not judged: the record bounds the length
    reader.ReadBigEndian(2, length);
    const bool isHello = type == kClientHello && length == recordLength - 4 && ReadTlsVersion(reader);
    return isHello ? kMatch : kNoMatch;
}

/// From the two-byte header of the record.
int JudgeSsl2Record(ByteReader& reader) {
    std::uint32_t header = 0;
    std::uint8_t type = 0;
    std::uint32_t version = 0;
    if (!reader.ReadBigEndian(2, header)) return kNoMatch;
    const std::uint32_t recordLength = header & 0x7FFF;
    if (recordLength > kMaxHelloRecord) return kNoMatch;
    if (reader.Remaining() < recordLength) return kUndecided;
    if (!reader.ReadByte(type) || !reader.ReadBigEndian(2, version)) return kNoMatch;
    return type == kClientHello ? kMatch : kNoMatch;
}

struct BerHeader {
    std::uint8_t tag;
    std::uint32_t length;
};

/// Reads a tag and a length that stays inside the data; of an INTEGER the value too.
bool ReadBerHeader(ByteReader& reader, BerHeader& header) {
    std::uint8_t form = 0;
    if (!reader.ReadByte(header.tag) || !reader.ReadByte(form)) return false;
    if (form < 0x80) {
        header.length = form;
    } else {
        if (form != 0x82 && form != 0x84) return false;
        if (!reader.ReadBigEndian(form - 0x80, header.length)) return false;
    }
    if (header.length > reader.Remaining()) return false;
    if (header.tag != kBerInteger) return true;
    return header.length <= 4 && reader.Skip(header.length);
}

/// The constructed application tags of bind, search, modify, add, delete, rename, compare, abandon and
/// extended.
bool IsLdapOperation(std::uint8_t tag) {
    constexpr std::uint8_t kOperations[] = {0x60, 0x63, 0x66, 0x68, 0x6A, 0x6C, 0x6E, 0x70, 0x77};
    for (const std::uint8_t operation : kOperations) {
        if (tag == operation) return true;
    }
    return false;
}

}  // namespace

int IsLdapRequest(const ProtocolSample& sample, int) {
    if (FirstByte(sample) != kBerSequence) return kNoMatch;
    ByteReader reader = ClientBytes(sample);
    BerHeader message{};
    BerHeader messageId{};
    BerHeader operation{};
    if (!ReadBerHeader(reader, message)) return kNoMatch;
    if (message.length != reader.Remaining()) return kNoMatch;
    if (!ReadBerHeader(reader, messageId) || messageId.tag != kBerInteger) return kNoMatch;
    if (!ReadBerHeader(reader, operation)) return kNoMatch;
    return IsLdapOperation(operation.tag) ? kMatch : kNoMatch;
}

int IsTlsClientHello(const ProtocolSample& sample, int) {
    const int type = FirstByte(sample);
    if (type != kTlsHandshake && type < kSsl2Header) return kNoMatch;
    ByteReader reader = ClientBytes(sample);
    if (type != kTlsHandshake) return JudgeSsl2Record(reader);
    reader.Skip(1);
    return JudgeTlsRecord(reader);
}
