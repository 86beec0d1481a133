#include "disinput.h"

#include "reportclock.h"
#include "reportrotation.h"

#include <tolvin/performer/pf.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

namespace tolvin
{

namespace
{

double clockSeconds(const vuRootNode &root)
{
    return root.time.sim.sec + root.time.sim.usec / 1e6;
}

double distance(const double *a, const double *b)
{
    return std::hypot(a[0] - b[0], a[1] - b[1], a[2] - b[2]);
}

vuScene *newScene(vuRootNode &root)
{
    auto *const scene = static_cast<vuScene *>(pfMalloc(sizeof(vuScene), pfGetSharedArena()));
    if (scene == nullptr)
    {
        throw std::bad_alloc();
    }
    std::memset(scene, 0, sizeof *scene);
    vunodeInit(&scene->node, "network");
    vulistInit(&scene->entities);
    vunodeAppend(&root.scenes, &scene->node);
    return scene;
}

} // namespace

DisInput::DisInput(vuRootNode &root, const DisInputOptions &options, NoticeSink notice)
    : root_(root),
      options_(options),
      notice_(std::move(notice)),
      scene_(newScene(root)),
      table_(std::make_unique<EntityTable>(root, *scene_, options.maxEntities))
{
}

DisInput::~DisInput()
{
    table_.reset();
    vunodeDelete(&root_.scenes, &scene_->node);
    pfFree(scene_);
}

void DisInput::setWarfareSinks(std::function<void(const Fire &)> fire,
                               std::function<void(const Detonation &)> detonation)
{
    fire_ = std::move(fire);
    detonation_ = std::move(detonation);
}

void DisInput::fault(PduFault kind)
{
    ++counts_.malformed;
    if (++counts_.faults[static_cast<std::size_t>(kind)] == 1)
    {
        notice_(std::string("dropped a malformed datagram: ") + faultText(kind) + " (further ones are only counted)");
    }
}

void DisInput::take(std::span<const std::uint8_t> datagram, double arrival)
{
    ++counts_.datagrams;
    PduReader reader(datagram);
    Pdu pdu;
    while (reader.next(pdu))
    {
        if (options_.exercise != 0 && pdu.header.exerciseId != options_.exercise)
        {
            ++counts_.otherExercise;
            continue;
        }
        if (const PduFault kind = takePdu(pdu, arrival); kind != PduFault::None)
        {
            fault(kind);
        }
    }
    if (reader.fault() != PduFault::None)
    {
        fault(reader.fault());
    }
}

PduFault DisInput::takePdu(const Pdu &pdu, double arrival)
{
    switch (kindOf(pdu.header))
    {
    case PduKind::EntityState:
    {
        vuEntityState report;
        const PduFault kind = decodeEntityState(pdu, report);
        if (kind == PduFault::None)
        {
            takeNews(report.entityId, report.timestamp, leaves(report) ? nullptr : &report, arrival);
        }
        return kind;
    }
    case PduKind::EntityStateUpdate:
    {
        EntityStateUpdate update;
        const PduFault kind = decodeEntityStateUpdate(pdu, update);
        if (kind == PduFault::None)
        {
            takeUpdate(update, arrival);
        }
        return kind;
    }
    case PduKind::RemoveEntity:
    {
        RemoveEntity removal;
        const PduFault kind = decodeRemoveEntity(pdu, removal);
        if (kind == PduFault::None)
        {
            takeRemoval(removal, arrival);
        }
        return kind;
    }
    case PduKind::Fire:
        return takeShot(pdu, decodeFire, fire_, counts_.fires);
    case PduKind::Detonation:
        return takeShot(pdu, decodeDetonation, detonation_, counts_.detonations);
    default:
        break;
    }
    ++counts_.otherPdus;
    return PduFault::None;
}

template<class Shot>
PduFault DisInput::takeShot(const Pdu &pdu, PduFault (*decode)(const Pdu &, Shot &),
                            const std::function<void(const Shot &)> &sink, std::uint64_t &count)
{
    if (!sink)
    {
        ++counts_.otherPdus;
        return PduFault::None;
    }
    Shot shot;
    const PduFault kind = decode(pdu, shot);
    if (kind == PduFault::None && isOwn(shot.firing))
    {
        ++counts_.own;
    }
    else if (kind == PduFault::None)
    {
        ++count;
        sink(shot);
    }
    return kind;
}

bool DisInput::isOwn(const vuEntityId &id) const
{
    return id.site == options_.site && id.application == options_.application;
}

// Of an entity that has not come yet, or has left, it says too little.
void DisInput::takeUpdate(const EntityStateUpdate &update, double arrival)
{
    const RemoteEntity *const remote = table_->find(update.entityId);
    if ((remote == nullptr || remote->leaving) && !isOwn(update.entityId))
    {
        ++counts_.otherPdus;
        return;
    }
    const vuEntityState report = reportAfter(remote != nullptr ? remote->report : vuEntityState{}, update);
    takeNews(update.entityId, report.timestamp, leaves(report) ? nullptr : &report, arrival);
}

// Nobody removes what belongs to others.
void DisInput::takeRemoval(const RemoveEntity &removal, double arrival)
{
    const vuEntityId &from = removal.originating, &id = removal.receiving;
    if (from.site == id.site && from.application == id.application)
    {
        takeNews(id, removal.header.timestamp, nullptr, arrival);
    }
    else
    {
        ++counts_.otherPdus;
    }
}

// What an application says about one of its entities: how it moves, or, without a report, that it leaves.
void DisInput::takeNews(const vuEntityId &id, std::uint32_t timestamp, const vuEntityState *report, double arrival)
{
    if (isOwn(id))
    {
        ++counts_.own;
        return;
    }
    follow(id, timestamp, report, arrival);
}

bool DisInput::takeReport(const vuEntityState &report, double arrival)
{
    if (options_.exercise != 0 && report.exerciseId != options_.exercise)
    {
        ++counts_.otherExercise;
        return false;
    }
    if (const PduFault kind = checkNumbers(report); kind != PduFault::None)
    {
        fault(kind);
        return false;
    }
    follow(report.entityId, report.timestamp, leaves(report) ? nullptr : &report, arrival);
    return true;
}

void DisInput::follow(const vuEntityId &id, std::uint32_t timestamp, const vuEntityState *report, double arrival)
{
    RemoteEntity *remote = table_->find(id);
    const bool leaving = report == nullptr;
    if (remote == nullptr && leaving)
    {
        ++counts_.leaves;
        return;
    }
    Sender *const sender = table_->senderOf(id);
    if (sender == nullptr)
    {
        refuse();
        return;
    }
    const double latency = ageOnArrival(sender->clock, arrival, timestamp);
    const double madeAt = arrival - latency;
    const double known = remote != nullptr ? remote->madeAt : table_->leftAt(id);
    ++sender->reports;
    sender->latency.add(latency);
    if (madeAt < known && known - madeAt < kLatestReport)
    {
        ++counts_.late;
        return;
    }
    if (remote == nullptr)
    {
        remote = table_->create(id);
        if (remote == nullptr)
        {
            refuse();
            return;
        }
        ++counts_.entered;
    }
    remote->heardAt = arrival;
    remote->madeAt = madeAt;
    remote->leaving = leaving;
    if (leaving)
    {
        ++counts_.leaves;
        return;
    }
    remote->timeout = silenceLimit(*report);
    ++counts_.reports;
    ++counts_.byAlgorithm[report->deadReckoning.algorithm];
    queue(*remote, *report, madeAt);
}

void DisInput::refuse()
{
    if (++counts_.refused == 1)
    {
        notice_("no room for another entity (further ones are only counted)");
    }
}

// A viewer sees no more than the last report of a frame, so that one is kept: a flood within a frame takes no memory.
void DisInput::queue(RemoteEntity &remote, const vuEntityState &report, double madeAt)
{
    if (remote.pending == SIZE_MAX)
    {
        remote.pending = reports_.size();
        reports_.emplace_back();
        ages_.emplace_back();
        algorithms_.emplace_back();
        owners_.push_back(&remote);
    }
    reports_[remote.pending] = report;
    remote.report = report;
    ages_[remote.pending] = madeAt;
    algorithms_[remote.pending] = report.deadReckoning.algorithm;
}

// Where each entity that is about to get a new report would have been shown, had the report not come.
void DisInput::rememberExtrapolated(double now)
{
    updated_.clear();
    for (RemoteEntity *remote : owners_)
    {
        remote->pending = SIZE_MAX;
        if (remote->leaving)
        {
            continue;
        }
        // However long its report has waited for this frame, it is not removed in it; well off the limit, whatever is rounded.
        remote->heardAt = std::max(remote->heardAt, now - remote->timeout / 2.0);
        updated_.push_back(remote);
        if (remote->reported)
        {
            disDeadRecon(&root_, remote->entity, remote->entity->drState);
            std::memcpy(remote->extrapolated.data(), remote->entity->position, sizeof remote->entity->position);
        }
    }
}

void DisInput::reportJumps(const JumpSink &jump)
{
    for (const RemoteEntity *remote : updated_)
    {
        if (remote->reported)
        {
            jump(remote->algorithm, distance(remote->extrapolated.data(), remote->entity->position));
        }
    }
}

void DisInput::frame(const JumpSink &jump)
{
    const double now = clockSeconds(root_);
    rememberExtrapolated(now);
    for (std::size_t i = 0; i < reports_.size(); ++i)
    {
        ages_[i] = now - ages_[i];
        conditionRotation(reports_[i]);
    }
    handOver(&root_, reports_, ages_);
    updateEntityPositions(&root_);
    reportJumps(jump);
    for (std::size_t i = 0; i < reports_.size(); ++i)
    {
        owners_[i]->algorithm = algorithms_[i];
        owners_[i]->reported = true;
    }
    reports_.clear();
    ages_.clear();
    algorithms_.clear();
    owners_.clear();
    table_->removeGone(now, [this](const RemoteEntity &remote) { ++(remote.leaving ? counts_.left : counts_.silent); });
}

} // namespace tolvin
