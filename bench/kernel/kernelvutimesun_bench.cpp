// The sun's position, obliquity and nutation for dates that no cache knows, beside the plain sums and other libraries.
// `date` is seconds for one. What the library prints on every date goes to /dev/null, as it is part of the work.

#include <benchmark/benchmark.h>
#include <cstdio>
#include <erfa.h>
#include <libnova/libnova.h>
#include <tolvin/bench/kernel/plainsun.h>
#include <tolvin/kernel/kernelvutime.h>

namespace
{

constexpr double kEpoch = 2415020.0; // Julian Date of MJD 0
const bool quiet = std::freopen("/dev/null", "w", stderr) != nullptr;

template<class Work>
void overDates(benchmark::State &state, const Work &work)
{
    using benchmark::Counter;
    const auto dates = static_cast<int>(state.range(0));
    double first = 36525.0 - 0.37 * dates; // around J2000
    for (auto _ : state)
    {
        for (int i = 0; i < dates; ++i)
        {
            benchmark::DoNotOptimize(work(first + 0.74 * i));
        }
        first += 1e-3; // no date twice
    }
    state.counters["date"] = Counter(dates, Counter::kIsIterationInvariantRate | Counter::kInvert);
}

void Sunpos(benchmark::State &state)
{
    overDates(state,
              [](double mjd)
              {
                  double longitude, distance, latitude;
                  sunpos(mjd, &longitude, &distance, &latitude);
                  return longitude;
              });
}

void SunposPlain(benchmark::State &state)
{
    overDates(state,
              [](double mjd)
              {
                  double earth[3];
                  plain::earth(mjd, earth);
                  return earth[0];
              });
}

void SunposLibnova(benchmark::State &state)
{
    overDates(state,
              [](double mjd)
              {
                  ln_helio_posn position;
                  ln_get_solar_geom_coords(kEpoch + mjd, &position);
                  return position.L;
              });
}

void Nutation(benchmark::State &state)
{
    overDates(state,
              [](double mjd)
              {
                  double deps, dpsi;
                  nutation(mjd, &deps, &dpsi);
                  return deps;
              });
}

void NutationPlain(benchmark::State &state)
{
    overDates(state,
              [](double mjd)
              {
                  double deps, dpsi;
                  plain::nutation(mjd, deps, dpsi);
                  return deps;
              });
}

void NutationErfa(benchmark::State &state)
{
    overDates(state,
              [](double mjd)
              {
                  double dpsi, deps;
                  eraNut80(kEpoch, mjd, &dpsi, &deps);
                  return deps;
              });
}

void Obliquity(benchmark::State &state)
{
    overDates(state, obliquity);
}

BENCHMARK(Sunpos)->Arg(1000);
BENCHMARK(SunposPlain)->Arg(1000);
BENCHMARK(SunposLibnova)->Arg(1000);
BENCHMARK(Nutation)->Arg(1000);
BENCHMARK(NutationPlain)->Arg(1000);
BENCHMARK(NutationErfa)->Arg(1000);
BENCHMARK(Obliquity)->Arg(1000);

} // namespace
