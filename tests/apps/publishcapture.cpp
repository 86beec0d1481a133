// publishcapture FILE heard PORT: the datagrams that come to a port of this machine, as a capture (pcap) of UDP packets to port 3000,
// until two Remove Entity PDUs have come or nothing for ten seconds; prints nothing but "hears" when it does.
//
// publishcapture FILE VERSION: what a publisher sends of two vehicles that turn and climb, as a capture (pcap) of UDP packets to
// port 3000. Prints a line for each of them: what a dissector has to find in it, by formulas that hold where the equator meets
// the meridian of Greenwich. Tabs separate PDU type, family, version, exercise, length, site, application, entity, request,
// appearance, time stamp, location, velocity and orientation.
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <tolvin/apps/publisher.h>
#include <tolvin/apps/udp.h>

using namespace tolvin;

namespace
{

using Bytes = std::vector<std::uint8_t>;

constexpr double kStart = 3590.0; // seconds: the hour turns on the way
constexpr double kFrame = 0.04;
constexpr int kFrames = 1500;
constexpr double kRadius = 6378137.0; // metres, of the equator

void put(Bytes &bytes, std::uint64_t number, int width)
{
    while (width-- > 0)
    {
        bytes.push_back(static_cast<std::uint8_t>(number >> 8 * width));
    }
}

// RFC 1071, of big-endian 16-bit words.
std::uint16_t checksum(const Bytes &bytes)
{
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i)
    {
        sum += i % 2 == 0 ? bytes[i] << 8 : bytes[i];
    }
    sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<std::uint16_t>(~(sum + (sum >> 16)));
}

Bytes ipHeader(std::size_t payload, std::uint16_t check)
{
    Bytes ip = {0x45, 0};
    put(ip, 20 + payload, 2);
    put(ip, 0x0000'4000'4011, 6); // not fragmented, 64 hops, UDP
    put(ip, check, 2);
    put(ip, 0x0A00'0001'0A00'00FF, 8); // 10.0.0.1 to 10.0.0.255
    return ip;
}

Bytes udpOf(std::span<const std::uint8_t> pdu, std::uint16_t check)
{
    Bytes udp;
    put(udp, 3000, 2);
    put(udp, 3000, 2);
    put(udp, 8 + pdu.size(), 2);
    put(udp, check, 2);
    udp.insert(udp.end(), pdu.begin(), pdu.end());
    return udp;
}

Bytes packetOf(std::span<const std::uint8_t> pdu)
{
    Bytes pseudo;
    put(pseudo, 0x0A00'0001'0A00'00FF, 8);
    put(pseudo, 17, 2);
    put(pseudo, 8 + pdu.size(), 2);
    const Bytes unchecked = udpOf(pdu, 0);
    pseudo.insert(pseudo.end(), unchecked.begin(), unchecked.end());

    const std::size_t payload = unchecked.size();
    Bytes packet(6, 0xFF); // Ethernet: broadcast
    put(packet, 0x0200'0000'0001, 6);
    put(packet, 0x0800, 2);
    for (const Bytes &part : {ipHeader(payload, checksum(ipHeader(payload, 0))), udpOf(pdu, checksum(pseudo))})
    {
        packet.insert(packet.end(), part.begin(), part.end());
    }
    return packet;
}

class Capture
{
public:
    explicit Capture(const char *name) : file_(std::fopen(name, "wb"))
    {
        Bytes header;
        put(header, 0xA1B2'C3D4'0002'0004, 8);
        put(header, 0, 8);
        put(header, 65535, 4);
        put(header, 1, 4); // Ethernet
        write(header);
    }

    void add(const Bytes &packet, double time)
    {
        Bytes header;
        put(header, static_cast<std::uint64_t>(time), 4);
        put(header, static_cast<std::uint64_t>(std::fmod(time, 1.0) * 1e6), 4);
        put(header, packet.size(), 4);
        put(header, packet.size(), 4);
        write(header);
        write(packet);
    }

    void close()
    {
        if (std::fclose(file_) != 0)
        {
            std::exit(1);
        }
    }

private:
    void write(const Bytes &bytes)
    {
        if (file_ == nullptr || std::fwrite(bytes.data(), 1, bytes.size(), file_) != bytes.size())
        {
            std::exit(1);
        }
    }

    std::FILE *file_;
};

vuEntity vehicle(std::uint32_t number, std::uint8_t domain, std::uint8_t algorithm)
{
    vuEntity entity{};
    setupES(&entity.xform.es);
    entity.id = number;
    entity.xform.es.entityId = {12, 1000, static_cast<std::uint16_t>(number + 1)};
    entity.xform.es.entityType.domain = domain;
    entity.xform.es.deadReckoning.algorithm = algorithm;
    return entity;
}

// One frame on a road that bends around east, up and down.
void drive(vuEntity &entity, double time)
{
    const double psi = -M_PI / 2 + 0.8 * std::sin(0.3 * time), theta = 0.2 * std::sin(0.23 * time + 1.0);
    const double velocity[] = {-25 * std::sin(psi) * std::cos(theta), 25 * std::cos(psi) * std::cos(theta),
                               25 * std::sin(theta)};
    for (int i = 0; i < 3; ++i)
    {
        entity.position[i] += velocity[i] * kFrame;
        entity.xform.es.velocity[i] = static_cast<float>(velocity[i]);
    }
    entity.orientation[0] = static_cast<float>(psi);
    entity.orientation[1] = static_cast<float>(theta);
}

// Geocentric x is up, y east, z north.
void printReport(int version, const vuEntity &entity, double now, bool last)
{
    const double psi = entity.orientation[0], theta = entity.orientation[1];
    const float *v = entity.xform.es.velocity;
    const double up = last ? 0 : v[2], east = last ? 0 : v[0], north = last ? 0 : v[1];
    std::printf(
        "1\t1\t%d\t3\t144\t12\t1000\t%d\t\t0x00%s00000\t%.6f\t%.6f\t%.6f\t%.6f\t%.6f\t%.6f\t%.6f\t%.6f\t%.6f\t%.6f\n",
        version, entity.xform.es.entityId.entity, last ? "8" : "0", std::fmod(now, 3600.0),
        kRadius + entity.position[2], entity.position[0], entity.position[1], up, east, north,
        std::atan2(-std::sin(psi) * std::cos(theta), std::sin(theta)), -std::asin(std::cos(psi) * std::cos(theta)),
        std::atan2(std::sin(psi), std::sin(theta) * std::cos(psi)));
}

void hear(const char *file, const std::string &port)
{
    Capture capture(file);
    UdpReceiver receiver(parseEndpoint("127.0.0.1:" + port));
    std::puts("hears");
    std::fflush(stdout);
    int removals = 0;
    const UdpReceiver::Handler take = [&](std::span<const std::uint8_t> datagram, std::int64_t arrival)
    {
        capture.add(packetOf(datagram), static_cast<double>(arrival) * 1e-9);
        removals += datagram.size() > 2 && datagram[2] == 12;
    };
    const auto deadline = [] { return std::chrono::steady_clock::now() + std::chrono::seconds(10); };
    for (auto until = deadline(); removals < 2 && std::chrono::steady_clock::now() < until;)
    {
        until = receiver.receiveUntil(std::chrono::steady_clock::now() + std::chrono::milliseconds(50), take) > 0
                    ? deadline()
                    : until;
    }
    capture.close();
}

} // namespace

int main(int count, char **arguments)
{
    if (count == 4 && arguments[2] == std::string_view("heard"))
    {
        hear(arguments[1], arguments[3]);
        return 0;
    }
    if (count != 3)
    {
        return 2;
    }
    const int version = std::atoi(arguments[2]);
    Capture capture(arguments[1]);
    double now = kStart;
    Publisher publisher(LocalFrame({0, 0, 0}), {.exercise = 3, .protocolVersion = static_cast<std::uint8_t>(version)},
                        [&](std::span<const std::uint8_t> pdu) { capture.add(packetOf(pdu), now); });
    vuEntity vehicles[] = {vehicle(0, 1, VU_DR_FPW), vehicle(1, 2, VU_DR_RVW)};
    vehicles[1].position[2] = 500;
    for (int frame = 0; frame < kFrames; ++frame)
    {
        now = kStart + kFrame * frame;
        for (vuEntity &entity : vehicles)
        {
            drive(entity, now + entity.id);
            const std::uint64_t before = publisher.counts().reports;
            publisher.frame(entity, now);
            if (publisher.counts().reports > before)
            {
                printReport(version, entity, now, false);
            }
        }
    }
    int request = 0;
    for (const vuEntity &entity : vehicles)
    {
        publisher.leave(entity, now);
        printReport(version, entity, now, true);
        std::printf("12\t5\t%d\t3\t28\t12,12\t1000,1000\t0,%d\t%d\t\t%.6f\t\t\t\t\t\t\t\t\t\n", version,
                    entity.xform.es.entityId.entity, ++request, std::fmod(now, 3600.0));
    }
    capture.close();
    return 0;
}
