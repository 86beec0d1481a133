// Walks any bytes as a datagram. What is decoded has to be usable for dead reckoning and to survive being sent on.
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include <tolvin/apps/dispdu.h>

using namespace tolvin;

static void require(bool condition)
{
    if (!condition)
    {
        std::abort();
    }
}

template<class Number>
static void requireWithin(const Number (&vector)[3], double limit)
{
    for (const Number component : vector)
    {
        require(std::isfinite(component) && std::abs(component) <= limit);
    }
}

static void checkEntityState(const Pdu &pdu)
{
    vuEntityState state;
    std::memset(&state, 0xA5, sizeof state);
    const vuEntityState before = state;
    if (decodeEntityState(pdu, state) != PduFault::None)
    {
        require(std::memcmp(&state, &before, sizeof state) == 0);
        return;
    }
    requireWithin(state.velocity, 1e5);
    requireWithin(state.location, 1e9);
    requireWithin(state.orientation, 1e4);
    requireWithin(state.deadReckoning.linearAcc, 1e6);
    requireWithin(state.deadReckoning.angularVel, 1e5);

    std::array<std::uint8_t, kEntityStateSize> wire;
    require(encodeEntityState(state, wire) == wire.size());
    PduReader reader(wire);
    Pdu copy;
    vuEntityState again;
    require(reader.next(copy) && decodeEntityState(copy, again) == PduFault::None);
    require(std::memcmp(&state, &again, sizeof state) == 0);
    require(!reader.next(copy) && reader.fault() == PduFault::None);
}

static void checkEntityStateUpdate(const Pdu &pdu)
{
    EntityStateUpdate update;
    if (decodeEntityStateUpdate(pdu, update) == PduFault::None)
    {
        const vuEntityState state = reportAfter({}, update);
        require(checkNumbers(state) == PduFault::None && state.appearance == update.appearance);
    }
}

static void checkRemoveEntity(const Pdu &pdu)
{
    RemoveEntity removal;
    if (decodeRemoveEntity(pdu, removal) == PduFault::None)
    {
        std::array<std::uint8_t, kRemoveEntitySize> wire;
        require(encodeRemoveEntity(removal, wire) == wire.size());
        require(std::memcmp(wire.data() + kPduHeaderSize, pdu.bytes.data() + kPduHeaderSize, 16) == 0);
    }
}

static void checkFire(const Pdu &pdu)
{
    Fire fire;
    std::memset(&fire, 0xA5, sizeof fire);
    const Fire before = fire;
    if (decodeFire(pdu, fire) != PduFault::None)
    {
        require(std::memcmp(&fire, &before, sizeof fire) == 0);
        return;
    }
    requireWithin(fire.location, 1e9);
    requireWithin(fire.velocity, 1e5);
    require(std::isfinite(fire.range));
    std::array<std::uint8_t, kFireSize> wire;
    require(encodeFire(fire, wire) == wire.size());
    require(std::memcmp(wire.data() + kPduHeaderSize, pdu.bytes.data() + kPduHeaderSize, 84) == 0);
}

static void checkDetonation(const Pdu &pdu)
{
    Detonation detonation;
    std::memset(&detonation, 0xA5, sizeof detonation);
    const Detonation before = detonation;
    if (decodeDetonation(pdu, detonation) != PduFault::None)
    {
        require(std::memcmp(&detonation, &before, sizeof detonation) == 0);
        return;
    }
    requireWithin(detonation.velocity, 1e5);
    requireWithin(detonation.location, 1e9);
    requireWithin(detonation.entityLocation, 1e9);
    std::array<std::uint8_t, kDetonationSize> wire;
    require(encodeDetonation(detonation, wire) == wire.size());
    // Up to the number of articulation parameters.
    require(std::memcmp(wire.data() + kPduHeaderSize, pdu.bytes.data() + kPduHeaderSize, 89) == 0);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    PduReader reader({data, size});
    const std::uint8_t *unread = data;
    for (Pdu pdu; reader.next(pdu);)
    {
        // PDUs lie one behind the other inside of the datagram, less than 8 bytes of padding apart.
        require(pdu.bytes.data() >= unread && pdu.bytes.data() - unread < 8);
        require(pdu.bytes.size() == pdu.header.length && pdu.bytes.size() >= kPduHeaderSize);
        unread = pdu.bytes.data() + pdu.bytes.size();
        require(unread <= data + size);
        switch (kindOf(pdu.header))
        {
        case PduKind::EntityState:
            checkEntityState(pdu);
            break;
        case PduKind::EntityStateUpdate:
            checkEntityStateUpdate(pdu);
            break;
        case PduKind::RemoveEntity:
            checkRemoveEntity(pdu);
            break;
        case PduKind::Fire:
            checkFire(pdu);
            break;
        case PduKind::Detonation:
            checkDetonation(pdu);
            break;
        default:
            break;
        }
    }
    require(reader.fault() != PduFault::None || data + size - unread < 8);
    return 0;
}
