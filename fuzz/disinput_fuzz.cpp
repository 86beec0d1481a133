// Any bytes as a sequence of datagrams and frames, through the whole road from the network to moved entities.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>

#include <tolvin/apps/disinput.h>
#include <tolvin/performer/pf.h>

using namespace tolvin;

static void require(bool condition)
{
    if (!condition)
    {
        std::abort();
    }
}

static vuRootNode &root()
{
    static const auto node = []
    {
        auto made = std::make_unique<vuRootNode>();
        initRootNode(made.get());
        return made;
    }();
    return *node;
}

// No entity is anywhere but where a plausible report can have taken it.
static void requireSomewhere(EntityTable &entities)
{
    entities.forEach(
        [](const RemoteEntity &remote)
        {
            for (const double component : remote.entity->position)
            {
                require(std::abs(component) < 1e13);
            }
            for (const float angle : remote.entity->orientation)
            {
                require(std::isfinite(angle));
            }
        });
}

// Each datagram follows a head of three bytes: its length, and by how many 10 ms the clock moves on before a frame.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    {
        DisInputOptions options;
        options.exercise = 0;
        options.maxEntities = 8;
        DisInput input(root(), options, [](const std::string &) {});
        std::uint64_t shots = 0;
        const auto take = [&](const auto &shot)
        {
            ++shots;
            require(std::isfinite(shot.location[0] + shot.velocity[0]));
            require(shot.firing.site != options.site || shot.firing.application != options.application);
        };
        input.setWarfareSinks(take, take);
        std::span<const std::uint8_t> rest(data, size);
        std::int64_t clock = 7199900000; // microseconds; the hour turns soon
        while (rest.size() >= 3)
        {
            const std::size_t length = std::min<std::size_t>(rest[0] << 8 | rest[1], rest.size() - 3);
            const std::uint8_t wait = rest[2];
            input.take(rest.subspan(3, length), static_cast<double>(clock) * 1e-6);
            rest = rest.subspan(3 + length);
            if (wait == 0)
            {
                continue;
            }
            clock += wait * 10000;
            root().time.sim = {static_cast<std::int32_t>(clock / 1000000), static_cast<std::int32_t>(clock % 1000000)};
            input.frame(
                [](std::uint8_t, double metres)
                {
                    if (!(metres >= 0.0))
                        std::abort();
                });
            requireSomewhere(input.entities());
        }
        require(shots == input.counts().fires + input.counts().detonations);
    }
    pfArenaInfo info;
    pfGetArenaInfo(&info);
    require(info.blocksInUse == 0);
    return 0;
}
