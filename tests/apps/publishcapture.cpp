// publishcapture FILE heard PORT: the datagrams that come to a port of this machine, as a capture (pcap) of UDP packets to port 3000,
// until two Remove Entity or Detonation PDUs have come or nothing for ten seconds; prints nothing but "hears" when it does.
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
#include <fstream>
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

std::ofstream newCapture(const char *file)
{
    std::ofstream capture(file, std::ios::binary);
    Bytes header;
    put(header, 0xA1B2'C3D4'0002'0004, 8);
    put(header, 0, 8);
    put(header, 0x0000'FFFF'0000'00E4, 8); // 65535 bytes of a packet at most, IPv4
    capture.write(reinterpret_cast<const char *>(header.data()), std::ssize(header));
    return capture;
}

// A packet of UDP without checksum.
void add(std::ofstream &capture, std::span<const std::uint8_t> pdu, double time)
{
    const std::uint64_t size = 28 + pdu.size();
    Bytes packet;
    put(packet, static_cast<std::uint64_t>(time), 4);
    put(packet, static_cast<std::uint64_t>(std::fmod(time, 1.0) * 1e6), 4);
    put(packet, size << 32 | size, 8);
    put(packet, 0x4500'0000 | size, 4);
    put(packet, 0x0000'4000'4011, 6);                          // not fragmented, 64 hops, UDP
    put(packet, 0xFFFF - 0xDA11 - size, 2);                    // RFC 1071: what the sum of all other words lacks
    put(packet, 0x0A00'0001'0A00'00FF, 8);                     // 10.0.0.1 to 10.0.0.255
    put(packet, 0x0BB8'0BB8'0000'0000 | (size - 20) << 16, 8); // port 3000
    packet.insert(packet.end(), pdu.begin(), pdu.end());
    capture.write(reinterpret_cast<const char *>(packet.data()), std::ssize(packet));
}

vuEntity vehicle(std::uint32_t number, std::uint8_t algorithm)
{
    vuEntity entity{};
    setupES(&entity.xform.es);
    entity.id = number;
    entity.xform.es.entityId = {12, 1000, static_cast<std::uint16_t>(number + 1)};
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

int hear(const char *file, const std::string &port)
{
    using Clock = std::chrono::steady_clock;
    std::ofstream capture = newCapture(file);
    UdpReceiver receiver(parseEndpoint("127.0.0.1:" + port));
    std::puts("hears");
    std::fflush(stdout);
    int last = 0; // PDUs
    const UdpReceiver::Handler take = [&](std::span<const std::uint8_t> datagram, std::int64_t arrival)
    {
        add(capture, datagram, static_cast<double>(arrival) * 1e-9);
        last += datagram.size() > 2 && (datagram[2] == 12 || datagram[2] == 3);
    };
    for (Clock::time_point now = Clock::now(), heard = now; last < 2 && now < heard + std::chrono::seconds(10);)
    {
        heard = receiver.receiveUntil(now + std::chrono::milliseconds(50), take) > 0 ? now : heard;
        now = Clock::now();
    }
    return capture.flush() ? 0 : 1;
}

} // namespace

int main(int count, char **arguments)
{
    if (count == 4 && arguments[2] == std::string_view("heard"))
    {
        return hear(arguments[1], arguments[3]);
    }
    if (count != 3)
    {
        return 2;
    }
    const int version = std::atoi(arguments[2]);
    std::ofstream capture = newCapture(arguments[1]);
    double now = kStart;
    Publisher publisher(LocalFrame({0, 0, 0}), {.exercise = 3, .protocolVersion = static_cast<std::uint8_t>(version)},
                        [&](std::span<const std::uint8_t> pdu) { add(capture, pdu, now); });
    vuEntity vehicles[] = {vehicle(0, VU_DR_FPW), vehicle(1, VU_DR_RVW)};
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
    return capture.flush() ? 0 : 1;
}
