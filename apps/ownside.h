// The own side of tolvin run: the world of the description, driven by a script, published, and written down.
#pragma once

#include "drivescript.h"
#include "outputfile.h"
#include "publisher.h"
#include "terrainmap.h"
#include "udp.h"
#include "world.h"

#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tolvin
{

struct OwnSideOptions
{
    WorldOptions world;
    std::string drive;     // script, or empty
    std::string publish;   // address and port, or empty
    std::string interface; // for multicasts
    int timeToLive = 1;
    std::string log; // file, or empty
};

class OwnSide
{
public:
    // As World. The description has a scene.
    OwnSide(vuRootNode &root, const Description &description, const std::string &folder, const OwnSideOptions &options,
            World::NoticeSink notice);

    OwnSide(const OwnSide &) = delete;
    OwnSide &operator=(const OwnSide &) = delete;

    // Before the entities move, at that many seconds since the start.
    void drive(double time);

    // After they have moved: finds the ground, publishes, writes down.
    void settle(double time);

    // All own entities leave the exercise, and the log is complete.
    void finish();

    void printSummary(std::FILE *out) const;

    // Of the scene.
    const std::string &name() const
    {
        return name_;
    }

    // Of the driven entity; empty without one.
    const std::vector<DrivenPath> &paths() const
    {
        return paths_;
    }

    const World &world() const
    {
        return world_;
    }

    World &world()
    {
        return world_;
    }

    // Seconds that the script lasts; none without one.
    std::optional<double> duration() const;

private:
    void logDriven(double time, double ground);
    void send(std::span<const std::uint8_t> pdu);

    vuRootNode &root_;
    std::string name_;
    World world_;
    World::NoticeSink notice_;
    std::optional<DriveScript> script_;
    std::optional<UdpSender> sender_;
    std::optional<Publisher> publisher_;
    std::unique_ptr<OutputFile> log_;
    std::vector<DrivenPath> paths_;
    std::uint64_t unsent_ = 0;
};

} // namespace tolvin
