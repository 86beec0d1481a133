#include "ownside.h"

#include "counted.h"
#include "plaintext.h"

#include <cmath>
#include <numbers>

namespace tolvin
{

namespace
{

constexpr double kRadian = std::numbers::pi / 180.0;

// Degrees clockwise from north, from 0 to 360.
double headingOf(float psi)
{
    const double degrees = std::fmod(360.0 - psi / kRadian, 360.0);
    return degrees < 0.0 ? degrees + 360.0 : degrees;
}

} // namespace

OwnSide::OwnSide(vuRootNode &root, const Description &description, const std::string &folder,
                 const OwnSideOptions &options, World::NoticeSink notice)
    : root_(root),
      name_(description.scene->name),
      world_(root, description, folder, options.world, notice),
      notice_(std::move(notice))
{
    const OwnEntity *const driven = world_.driven();
    if (!options.drive.empty())
    {
        if (driven == nullptr)
        {
            throw std::runtime_error("the description has no ENTITY with MOTION DRIVE or FLY to drive");
        }
        script_ = readDriveScriptFile(options.drive);
        world_.setWindow(script_->width, script_->height);
    }
    if (!options.publish.empty())
    {
        sender_.emplace(parseEndpoint(options.publish), parseInterface(options.interface), options.timeToLive);
        PublisherOptions published;
        published.exercise = options.world.exercise;
        publisher_.emplace(world_.terrain().frame(), published,
                           [this](std::span<const std::uint8_t> pdu) { send(pdu); });
    }
    if (!options.log.empty() && driven == nullptr)
    {
        throw std::runtime_error("--log: the description has no ENTITY that could be driven");
    }
    if (!options.log.empty())
    {
        log_ = std::make_unique<OutputFile>(options.log);
        std::fprintf(log_->stream(), "seconds,east,north,height,ground,heading,pitch,roll,speed\n");
    }
    if (driven != nullptr)
    {
        paths_.emplace_back(driven->description->name);
    }
}

std::optional<double> OwnSide::duration() const
{
    return script_.has_value() ? std::optional(script_->samples.back().time) : std::nullopt;
}

void OwnSide::send(std::span<const std::uint8_t> pdu)
{
    const std::error_code error = sender_->send(pdu);
    if (error && unsent_++ == 0)
    {
        notice_("cannot publish: " + error.message() + " (further failures are only counted)");
    }
}

void OwnSide::drive(double time)
{
    world_.drive(script_.has_value() ? mouseAt(*script_, time) : pfuMouse{});
}

void OwnSide::settle(double time)
{
    world_.settle();
    if (const OwnEntity *const driven = world_.driven(); driven != nullptr)
    {
        const double *const p = driven->entity->position;
        const double ground = world_.groundBelow(*driven).value_or(NAN);
        paths_.front().add({p[0], p[1], p[2]}, ground);
        logDriven(time, ground);
    }
    if (publisher_.has_value())
    {
        for (const OwnEntity &own : world_.entities())
        {
            if (!own.isReceived) // others publish it
            {
                publisher_->frame(*own.entity, root_.simSeconds);
            }
        }
    }
}

void OwnSide::logDriven(double time, double ground)
{
    if (log_ != nullptr)
    {
        const OwnEntity &own = *world_.driven();
        const vuEntity &entity = *own.entity;
        std::fprintf(log_->stream(), "%.6f,%.4f,%.4f,%.4f,%.4f,%.3f,%.3f,%.3f,%.3f\n", time, entity.position[0],
                     entity.position[1], entity.position[2], ground, headingOf(entity.orientation[0]),
                     entity.orientation[1] / kRadian, entity.orientation[2] / kRadian,
                     static_cast<double>(entity.xform.speed));
    }
}

void OwnSide::finish()
{
    if (publisher_.has_value())
    {
        for (const OwnEntity &own : world_.entities())
        {
            publisher_->leave(*own.entity, root_.simSeconds);
        }
    }
    if (log_ != nullptr)
    {
        log_->complete();
    }
}

void OwnSide::printSummary(std::FILE *out) const
{
    std::fprintf(out, "\nown side: %s, terrain of %s\n",
                 world_.entities().size() == 1 ? "1 entity"
                                               : (std::to_string(world_.entities().size()) + " entities").c_str(),
                 counted(world_.terrain().triangles(), "triangle").c_str());
    for (const DrivenPath &path : paths_)
    {
        const OwnEntity &own = *world_.driven();
        std::fprintf(out, "  %s went %.2f km", plainText(path.name()).c_str(), path.length() / 1000.0);
        if (own.description->followTerrain)
        {
            std::fprintf(out, ", never more than %.4f m from the ground; ground lost and found again: %s",
                         path.farthest(), counted(own.lost, "time").c_str());
        }
        std::fprintf(out, "; frames without ground: %llu\n", static_cast<unsigned long long>(own.withoutGround));
    }
    if (publisher_.has_value())
    {
        const PublisherCounts &c = publisher_->counts();
        const auto number = [](std::uint64_t n) { return static_cast<unsigned long long>(n); };
        std::fprintf(out, "  published %s (%llu for distance, %llu for angle, %llu for changes), %s, %s\n",
                     counted(c.reports, "report").c_str(), number(c.distance), number(c.angle), number(c.changes),
                     counted(c.heartbeats, "heartbeat").c_str(), counted(c.removes, "Remove Entity PDU").c_str());
        if (c.nowhere > 0)
        {
            std::fprintf(out, "  %s had a place that no receiver would take\n", counted(c.nowhere, "report").c_str());
        }
        if (unsent_ > 0)
        {
            std::fprintf(out, "  %s could not be sent\n", counted(unsent_, "PDU").c_str());
        }
    }
}

} // namespace tolvin
