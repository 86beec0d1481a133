#include <tolvin/apps/dismessage.h>
#include <tolvin/apps/distext.h>

#include "support/capture.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

using namespace tolvin;

namespace
{

using Bytes = std::vector<std::uint8_t>;

Bytes operator+(Bytes a, const Bytes &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// The bytes of hexadecimal digits; blanks are for the eye.
Bytes hex(std::string_view digits)
{
    Bytes bytes;
    std::string pair;
    for (const char c : digits)
    {
        pair += c == ' ' ? "" : std::string(1, c);
        if (pair.size() == 2)
        {
            bytes.push_back(static_cast<std::uint8_t>(std::stoi(std::exchange(pair, ""), nullptr, 16)));
        }
    }
    return bytes;
}

// A PDU of version 7 from its type, family and body; its status is 0x2a, its padding 0x55.
Bytes pduOf(int type, int family, const Bytes &body)
{
    const auto length = static_cast<std::uint16_t>(12 + body.size());
    Bytes header = hex("0709 0000 12345679 0000 2a55");
    header[2] = static_cast<std::uint8_t>(type), header[3] = static_cast<std::uint8_t>(family);
    header[8] = static_cast<std::uint8_t>(length >> 8), header[9] = static_cast<std::uint8_t>(length);
    return header + body;
}

PduFault decodeBytes(const Bytes &bytes, DisMessage &message)
{
    Pdu pdu;
    PduReader reader(bytes);
    EXPECT_TRUE(reader.next(pdu));
    const PduFault fault = decode(pdu, message);
    EXPECT_EQ(checkCounts(pdu), fault);
    return fault;
}

// Laid by hand from the tables of IEEE 1278.1. Ids are 1:2:3 and 4:5:6; vectors are 1 2 3, 1 being 3f8 and zeros.
const std::string kIds = "0001 0002 0003  0004 0005 0006 ", kVector = "3f800000 40000000 40400000 ",
                  kPlace = "3ff0000000000000 4000000000000000 4008000000000000 ", kType = "01 02 014e 05 06 07 08 ",
                  kPart = "00 01 0002 00001003 3f800000 00000000 ", kMarking = "01 41220900ff 000000000000 ";
const Bytes kState = pduOf(1, 1,
                           hex("0001 0002 0003 02 02" + kType + kType + kVector + kPlace + kVector + "00000018 04" +
                               std::string(30, '0') + kVector + kVector + kMarking + "deadbeef" + kPart + kPart));
const Bytes kUpdate = pduOf(67, 1, hex("0001 0002 0003 77 01" + kVector + kPlace + kVector + "00000018" + kPart));
const Bytes kCollision = pduOf(4, 1, hex(kIds + "0001 0002 0009 01 66" + kVector + "40a00000" + kVector));
const Bytes kFire = pduOf(2, 2,
                          hex(kIds + "0007 0008 0009  0001 0002 000a 0000000b" + kPlace + kType +
                              "0384 0385 0001 0002" + kVector + "7f800001"));
const Bytes kDetonation = pduOf(3, 2,
                                hex(kIds + "0007 0008 0009  0001 0002 000a" + kVector + kPlace + kType +
                                    "0384 0385 0001 0002" + kVector + "05 01 3344" + kPart));
const Bytes kCreate = pduOf(11, 5, hex(kIds + "0000000c")),
            kAcknowledge = pduOf(15, 5, hex(kIds + "0001 0002 0000000d"));
const Bytes kQuery = pduOf(18, 5, hex(kIds + "0000000e 00000010 00000002 00000001 00002710 ffffffff 000186a1"));
const Bytes kSetData = pduOf(19, 5,
                             hex(kIds + "0000000f 99999999 00000001 00000002 00002710 01020304 00002af8 00000041 "
                                        "1112131415161718 2100000000000000 00002af9 00000000"));
const Bytes kSignal = pduOf(26, 4, hex("000102"));

const std::vector<Bytes> kAll = {kState,  kUpdate,      kCollision, kFire,    kDetonation,
                                 kCreate, kAcknowledge, kQuery,     kSetData, kSignal};

std::string printed(const DisMessage &message)
{
    return printedTo([&](std::FILE *stream) { printMessage(stream, message); });
}

} // namespace

TEST(DisMessage, ComesBackAsTheSameBytes)
{
    for (const Bytes &bytes : kAll)
    {
        const Bytes longer = pduOf(bytes[2], bytes[3], Bytes(bytes.begin() + 12, bytes.end()) + hex("0a0b0c"));
        for (const Bytes &each : {bytes, longer})
        {
            DisMessage message;
            ASSERT_EQ(decodeBytes(each, message), PduFault::None) << int{bytes[2]};
            EXPECT_EQ(encode(message), each) << int{bytes[2]};
            EXPECT_EQ(headerOf(message).padding, 0x2a55);
        }
        for (std::size_t size = 12; size < bytes.size() && &bytes != &kAll.back(); ++size)
        {
            const Bytes cut = pduOf(bytes[2], bytes[3], Bytes(bytes.begin() + 12, bytes.begin() + size));
            DisMessage message;
            message.rest = {1};
            EXPECT_EQ(decodeBytes(cut, message), PduFault::BodyTooShort) << int{bytes[2]} << ' ' << size;
            EXPECT_EQ(message.rest.size(), 1u);
        }
    }
    // More than there can be, in 32 bits as well.
    for (const auto &[bytes, at] :
         {std::pair(kQuery, 32), {kQuery, 36}, {kSetData, 32}, {kSetData, 36}, {kSetData, 52}})
    {
        for (const std::uint8_t top : {0x20, 0x40, 0xff})
        {
            Bytes wrong = bytes;
            wrong[at] = top;
            DisMessage message;
            EXPECT_EQ(decodeBytes(wrong, message), PduFault::BodyTooShort) << at;
        }
    }
}

TEST(DisMessage, LengthsAndCountsFollowFromWhatThereIs)
{
    DisMessage message;
    decodeBytes(kState, message);
    message.parameters.resize(255);
    const Bytes most = encode(message);
    EXPECT_TRUE(most.size() == 144 + 255 * 16 && most[19] == 255 && most[8] == most.size() >> 8);
    message.parameters.resize(256);
    EXPECT_THROW(encode(message), std::length_error);

    decodeBytes(kSetData, message);
    message.fixedDatums.clear();
    message.variableDatums.pop_back();
    std::get<vuSetDataPdu>(message.record).numFixedDatums = 9;
    DisMessage again;
    ASSERT_EQ(decodeBytes(encode(message), again), PduFault::None);
    EXPECT_TRUE(again.fixedDatums.empty() && again.variableDatums.size() == 1);
    message.variableDatums[0].bits = 129;
    EXPECT_THROW(encode(message), std::length_error);
    message.variableDatums[0].bits = 128;
    message.rest.resize(65535);
    EXPECT_THROW(encode(message), std::length_error);
}

TEST(DisText, TellsAllFields)
{
    const std::string header = "\"protocolVersion\":7,\"exerciseId\":9,\"pduType\":";
    const std::string behind = ",\"timestamp\":305419897,\"length\":", vector = "[1,2,3]";
    const std::string id = "{\"site\":1,\"application\":2,\"entity\":3}",
                      other = "{\"site\":4,\"application\":5,\"entity\":6}";
    const std::string management = ",\"status\":10837,\"originatingId\":" + id + ",\"receivingId\":" + other;
    const std::pair<Bytes, std::string> cases[] = {
        {kCollision, "{\"pdu\":\"collision\"," + header + "4,\"protocolFamily\":1" + behind +
                         "60,\"status\":10837,\"issuingId\":" + id + ",\"collidingId\":" + other +
                         ",\"eventId\":{\"site\":1,\"application\":2,\"number\":9},\"collisionType\":1,\"velocity\":" +
                         vector + ",\"mass\":5,\"location\":" + vector + "}"},
        {kSetData, "{\"pdu\":\"set data\"," + header + "19,\"protocolFamily\":5" + behind + "80" + management +
                       ",\"requestId\":15,\"numFixedDatums\":1,\"numVariableDatums\":2,\"fixedDatums\":[{\"id\":10000,"
                       "\"value\":16909060}],\"variableDatums\":[{\"id\":11000,\"bits\":65,\"value\":"
                       "\"11121314151617182100000000000000\"},{\"id\":11001,\"bits\":0,\"value\":\"\"}]}"},
        {kQuery, "{\"pdu\":\"data query\"," + header + "18,\"protocolFamily\":5" + behind + "52" + management +
                     ",\"requestId\":14,\"timeInterval\":16,\"numFixedDatums\":2,\"numVariableDatums\":1,\"fixedIds\":["
                     "10000,4294967295],\"variableIds\":[100001]}"},
        {kSignal, "{\"pdu\":\"signal\"," + header + "26,\"protocolFamily\":4" + behind +
                      "15,\"status\":10837,\"rest\":\"000102\"}"}};
    for (const auto &[bytes, json] : cases)
    {
        DisMessage message;
        decodeBytes(bytes, message);
        EXPECT_EQ(jsonOf(message), json);
    }
    DisMessage message;
    decodeBytes(kState, message);
    EXPECT_NE(jsonOf(message).find("\"marking\":{\"characterSet\":1,\"text\":\"A\\\"\\u0009\"}"), std::string::npos);
    EXPECT_NE(jsonOf(message).find("\"attachedTo\":2,\"parameter\":4099,\"value\":\"3f80000000000000\"}]}"),
              std::string::npos);
    EXPECT_EQ(lineOf(message), "entity state, exercise 9, 1:2:3 \"A\"\\x09\" at 1.0 2.0 3.0, 176 bytes");
    EXPECT_NE(printed(message).find("capabilities: 0xDEADBEEF\nparameter:        type 0, change 1"), std::string::npos);
    auto &state = std::get<vuEntityState>(message.record);
    std::ranges::copy(std::string_view("\xC3\xBC\xC2\x9B\x9B\xE0\x80\xF0\x9F\x9A\x97"), state.marking.text);
    EXPECT_NE(lineOf(message).find("\"\xC3\xBC\\xC2\\x9B\\x9B\\xE0\\x80\xF0\x9F\x9A\x97\""), std::string::npos);
    decodeBytes(kFire, message);
    EXPECT_NE(jsonOf(message).find("\"range\":null}"), std::string::npos);
    EXPECT_EQ(lineOf(message), "fire, exercise 9, 1:2:3 to 4:5:6 at 1.0 2.0 3.0, 96 bytes");
    EXPECT_NE(printed(message).find("length:         96\nfiringId:\nSite:         1\n"), std::string::npos);
    decodeBytes(kSetData, message);
    EXPECT_NE(printed(message).find("  fvar[ 0]:  10000 (identification)\n  vvar[ 0]: 16909060 (unknown 16909060)\n"
                                    "  vvar[ 1]:  11000 (type)\n"),
              std::string::npos);
}
