#include "sendcommand.h"

#include "dispdu.h"
#include "exitcode.h"
#include "geodesy.h"
#include "motion.h"
#include "pacer.h"
#include "progressline.h"
#include "udp.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <functional>
#include <memory>
#include <numeric>
#include <optional>
#include <queue>
#include <random>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace tolvin
{

namespace
{

constexpr std::size_t kBundleBytes = 1400; // stays below the usual 1500 with all headers

struct SendOptions
{
    std::string to = "127.0.0.1:3000";
    std::string interface;
    int timeToLive = 1;
    bool bundle = false;

    int version = 7;
    int exercise = 1;
    std::uint16_t site = 1;
    std::uint16_t application = 2;
    std::uint32_t entities = 1;
    std::uint32_t firstEntity = 1;
    std::string marking = "T";
    bool leave = false;
    std::vector<std::string> fires;
    std::vector<std::string> detonations;

    std::vector<std::string> motions = {"circle"};
    std::vector<std::string> algorithms = {"4"};
    std::string origin = "47,8,500";
    Motion pattern;

    double rate = 5.0;
    double duration = 0.0;
    double jitter = 0.0;
    double loss = 0.0;
    std::string stamp = "relative";
    double clockOffset = 0.0;
    double clockDrift = 0.0;
    std::uint32_t seed = 1;
    bool quiet = false;
};

[[noreturn]] void refuse(const std::string &option, const std::string &value, const std::string &expected)
{
    throw std::runtime_error(option + " " + value + ": expected " + expected);
}

// Reads a number at the start of text and removes it from there.
template<typename Number>
std::optional<Number> takeNumber(std::string_view &text)
{
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc())
    {
        return std::nullopt;
    }
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return value;
}

bool takeCharacter(std::string_view &text, char character)
{
    const bool found = text.starts_with(character);
    text.remove_prefix(found ? 1 : 0);
    return found;
}

// Algorithm numbers and ranges of them, such as 2, 4 and 6-9.
std::vector<std::uint8_t> parseAlgorithms(const std::vector<std::string> &items)
{
    std::vector<std::uint8_t> algorithms;
    for (const std::string &item : items)
    {
        std::string_view rest = item;
        const int first = takeNumber<int>(rest).value_or(0);
        const int last = takeCharacter(rest, '-') ? takeNumber<int>(rest).value_or(0) : first;
        if (!rest.empty() || first < 1 || last < first || last > 9)
        {
            refuse("--algorithm", item, "numbers from 1 to 9 or ranges such as 2-5");
        }
        for (int algorithm = first; algorithm <= last; ++algorithm)
        {
            algorithms.push_back(static_cast<std::uint8_t>(algorithm));
        }
    }
    return algorithms;
}

std::vector<MotionKind> parseMotions(const std::vector<std::string> &items)
{
    std::vector<MotionKind> kinds;
    for (const std::string &item : items)
    {
        if (item == "all")
        {
            kinds.insert(kinds.end(), std::begin(kMotionKinds), std::end(kMotionKinds));
        }
        else if (const auto kind = motionKindNamed(item))
        {
            kinds.push_back(*kind);
        }
        else
        {
            refuse("--motion", item, "static, line, accelerate, circle, helix, weave or all");
        }
    }
    return kinds;
}

// Numbers with commas in between; none when that is not all there is.
std::vector<double> numbersOf(std::string_view text)
{
    std::vector<double> numbers;
    do
    {
        const auto number = takeNumber<double>(text);
        if (!number)
        {
            return {};
        }
        numbers.push_back(*number);
    } while (takeCharacter(text, ','));
    return text.empty() ? numbers : std::vector<double>();
}

// The height may be missing.
std::optional<Geodetic> placeOf(std::span<const double> numbers)
{
    if (numbers.size() < 2)
    {
        return std::nullopt;
    }
    const Geodetic place = {numbers[0], numbers[1], numbers.size() > 2 ? numbers[2] : 0.0};
    // Written so that a NaN fails as well.
    const bool good =
        std::abs(place.latitude) <= 90.0 && std::abs(place.longitude) <= 360.0 && std::abs(place.height) <= 1e6;
    return good ? std::optional(place) : std::nullopt;
}

Geodetic parseOrigin(const std::string &text)
{
    const std::vector<double> numbers = numbersOf(text);
    const auto place = placeOf(numbers);
    if (!place || numbers.size() > 3)
    {
        refuse("--origin", text, "LAT,LON[,HEIGHT] in degrees (-90 to 90, -360 to 360) and metres (to 1000 km)");
    }
    return *place;
}

// A Fire or a Detonation PDU that is to be sent once.
struct Shot
{
    Nanoseconds at;
    PduKind kind;
    std::uint16_t number; // of the event
    Vector3 location;     // geocentric
};

// The first fire and the first detonation are one event, and so on.
void addShots(std::vector<Shot> &shots, PduKind kind, const std::string &option, const std::vector<std::string> &texts,
              double duration)
{
    std::uint16_t number = 0;
    for (const std::string &text : texts)
    {
        const std::vector<double> numbers = numbersOf(text);
        const auto place = placeOf(numbers);
        const double at = numbers.size() > 3 ? numbers[3] : 0.0;
        const double last = duration > 0.0 ? duration : 1e9;
        if (!place || numbers.size() < 3 || numbers.size() > 4 || !(at >= 0.0 && at <= last))
        {
            refuse(option, text,
                   "LAT,LON,HEIGHT[,AT] in degrees (-90 to 90, -360 to 360), metres (to 1000 km) and seconds (to "
                   "the --duration)");
        }
        shots.push_back({std::llround(at * 1e9), kind, ++number, geocentricOf(*place)});
    }
}

std::vector<Shot> makeShots(const SendOptions &options)
{
    std::vector<Shot> shots;
    addShots(shots, PduKind::Fire, "--fire", options.fires, options.duration);
    addShots(shots, PduKind::Detonation, "--detonate", options.detonations, options.duration);
    if (shots.empty() && options.entities == 0)
    {
        refuse("--entities", "0", "1 to 65534 without --fire and --detonate");
    }
    std::ranges::stable_sort(shots, {}, &Shot::at);
    return shots;
}

// A ballistic round of high explosive against armour, with a contact fuse.
constexpr BurstDescriptor kRound = {{2, 2, 225, 2, 0, 0, 0}, 1000, 1000, 1, 0};

struct SimulatedEntity
{
    Motion motion;
    std::uint8_t algorithm;
    vuEntityId id;
    vuMarking marking;
};

vuMarking markingOf(const std::string &prefix, std::uint32_t number)
{
    vuMarking marking{};
    marking.characterSet = 1;
    const std::string digits = std::to_string(number);
    const std::string text = prefix.substr(0, sizeof marking.text - digits.size()) + digits;
    std::copy(text.begin(), text.end(), marking.text);
    return marking;
}

std::vector<SimulatedEntity> makeEntities(const SendOptions &options)
{
    if (options.firstEntity + options.entities - 1 > 65534)
    {
        refuse("--first-entity", std::to_string(options.firstEntity), "the last entity number to be 65534 or less");
    }
    const std::vector<MotionKind> kinds = parseMotions(options.motions);
    const std::vector<std::uint8_t> algorithms = parseAlgorithms(options.algorithms);
    const std::size_t cycle = std::lcm(kinds.size(), algorithms.size());
    std::vector<SimulatedEntity> entities(options.entities);
    for (std::size_t i = 0; i < entities.size(); ++i)
    {
        const auto number = static_cast<std::uint16_t>(options.firstEntity + i);
        Motion pattern = options.pattern;
        pattern.kind = kinds[i % kinds.size()];
        entities[i].motion = spreadMotion(pattern, i, entities.size());
        // One step further each time both lists are through together, so that every motion meets every algorithm.
        entities[i].algorithm = algorithms[(i + i / cycle) % algorithms.size()];
        entities[i].id = {options.site, options.application, number};
        entities[i].marking = markingOf(options.marking, number);
    }
    return entities;
}

// The wall clock as the sender believes it to be.
class SkewedClock
{
public:
    SkewedClock(double offset, double driftPpm)
        : start_(
              std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
                  .count() +
              std::llround(offset * 1e9)),
          drift_(driftPpm * 1e-6)
    {
    }

    // Nanoseconds since 1970.
    std::int64_t at(Nanoseconds time) const
    {
        return start_ + time + std::llround(static_cast<double>(time) * drift_);
    }

private:
    std::int64_t start_;
    double drift_;
};

// Gathers PDUs into datagrams and sends them.
class Outbox
{
public:
    Outbox(const asio::ip::udp::endpoint &to, const asio::ip::address_v4 &interface, int timeToLive, bool bundle)
        : sender_(to, interface, timeToLive),
          name_(textOf(to)),
          bundle_(bundle)
    {
    }

    // encode writes a PDU of that size.
    template<class Record>
    void add(const Record &record, std::size_t size, std::size_t (*encode)(const Record &, std::span<std::uint8_t>))
    {
        if (!bundle_ || size_ + size > bytes_.size())
        {
            flush();
        }
        size_ += encode(record, std::span(bytes_).subspan(size_));
        ++pdus_;
    }

    void flush()
    {
        if (size_ == 0)
        {
            return;
        }
        const std::uint64_t pdus = std::exchange(pdus_, 0);
        const std::error_code error = sender_.send(std::span(bytes_).first(std::exchange(size_, 0)));
        (error ? failed_ : sent_) += pdus;
        if (error && sent_ == 0)
        {
            throw std::runtime_error(name_ + ": " + error.message());
        }
        if (error && failed_ == pdus)
        {
            std::fprintf(stderr, "Warning: %s: %s; going on\n", name_.c_str(), error.message().c_str());
        }
    }

    std::uint64_t sent() const
    {
        return sent_;
    }

    std::uint64_t failed() const
    {
        return failed_;
    }

private:
    UdpSender sender_;
    std::string name_;
    bool bundle_;
    std::size_t size_ = 0;
    std::uint64_t pdus_ = 0; // of the datagram
    std::array<std::uint8_t, kBundleBytes> bytes_;
    std::uint64_t sent_ = 0;
    std::uint64_t failed_ = 0;
};

// A report that waits for its delay to pass.
struct Due
{
    Nanoseconds send;
    Nanoseconds made;
    std::size_t entity;

    auto operator<=>(const Due &) const = default;
};

// Round after round, each of one interval, every entity makes one report. They are spread evenly over the round, those
// that share a datagram together.
class Schedule
{
public:
    Schedule(std::size_t entities, double rate, std::size_t group)
        : entities_(entities),
          group_(group),
          groups_((entities + group - 1) / group),
          interval_(1e9 / rate)
    {
    }

    // Never, without entities.
    Nanoseconds timeOf(std::uint64_t report) const
    {
        if (entities_ == 0)
        {
            return kNever;
        }
        const auto place = static_cast<double>(report % entities_ / group_) / static_cast<double>(groups_);
        return std::llround((static_cast<double>(report / entities_) + place) * interval_);
    }

    Nanoseconds interval() const
    {
        return std::llround(interval_);
    }

private:
    std::size_t entities_;
    std::size_t group_;
    std::size_t groups_;
    double interval_; // nanoseconds
};

class Generator
{
public:
    explicit Generator(const SendOptions &options)
        : options_(options),
          entities_(makeEntities(options)),
          shots_(makeShots(options)),
          frame_(parseOrigin(options.origin)),
          schedule_(entities_.size(), options.rate, groupSize(options)),
          outbox_(parseEndpoint(options.to), parseInterface(options.interface), options.timeToLive, options.bundle),
          random_(options.seed),
          end_(options.duration > 0.0 ? std::llround(options.duration * 1e9)
               : entities_.empty()    ? shots_.back().at
                                      : kNever),
          clock_(options.clockOffset, options.clockDrift)
    {
    }

    // Sends until the end or a signal.
    void run()
    {
        ProgressLine progress("reports", options_.quiet);
        Nanoseconds now;
        do
        {
            now = pace_.now();
            makeReports(now);
            sendReports(now);
            sendShots(now);
            outbox_.flush();
            progress.show(now, outbox_.sent());
        } while (nextWork(now) != kNever && pace_.waitUntil(std::min(nextWork(now), progress.next())));
        if (options_.leave)
        {
            leave();
        }
    }

    void printSummary() const
    {
        const double seconds = static_cast<double>(pace_.now()) * 1e-9;
        std::printf("%zu entities, %" PRIu64 " reports sent, %" PRIu64 " dropped on purpose, %" PRIu64
                    " skipped for being late, %" PRIu64 " failed, %.1f s, %.1f reports/s\n",
                    entities_.size(), outbox_.sent(), dropped_, skipped_, outbox_.failed(), seconds,
                    static_cast<double>(outbox_.sent()) / seconds);
        if (!shots_.empty())
        {
            std::printf("%zu of %zu fires and detonations among them\n", nextShot_, shots_.size());
        }
    }

private:
    static std::size_t groupSize(const SendOptions &options)
    {
        return options.bundle ? kBundleBytes / kEntityStateSize : 1;
    }

    // From 0 to 1. The distributions of the standard library differ from one library to the other.
    double random()
    {
        return static_cast<double>(random_()) * 0x1p-32;
    }

    void makeReports(Nanoseconds now)
    {
        for (Nanoseconds made; (made = schedule_.timeOf(next_)) <= now && made < end_; ++next_)
        {
            const bool lost = random() * 100.0 < options_.loss;
            const Nanoseconds delay = std::llround(random() * options_.jitter * 1e9);
            if (now - made >= schedule_.interval())
            {
                ++skipped_; // its successor is due already: after a pause nobody wants all that was missed
            }
            else if (lost)
            {
                ++dropped_;
            }
            else
            {
                waiting_.push({made + delay, made, static_cast<std::size_t>(next_ % entities_.size())});
            }
        }
    }

    void sendReports(Nanoseconds now)
    {
        for (; !waiting_.empty() && waiting_.top().send <= now; waiting_.pop())
        {
            add(reportAt(waiting_.top().entity, waiting_.top().made));
        }
    }

    // Neither loss nor delay is simulated for them: a session has few.
    void sendShots(Nanoseconds now)
    {
        for (; nextShot_ < shots_.size() && shots_[nextShot_].at <= now; ++nextShot_)
        {
            if (shots_[nextShot_].kind == PduKind::Fire)
            {
                outbox_.add(recordOf<Fire>(shots_[nextShot_]), kFireSize, encodeFire);
            }
            else
            {
                auto detonation = recordOf<Detonation>(shots_[nextShot_]);
                detonation.result = kGroundImpact;
                outbox_.add(detonation, kDetonationSize, encodeDetonation);
            }
        }
    }

    // Until the end there is always something to wait for; after it only what was delayed.
    Nanoseconds nextWork(Nanoseconds now) const
    {
        const Nanoseconds made = now < end_ ? std::min(schedule_.timeOf(next_), end_) : kNever;
        const Nanoseconds shot = nextShot_ < shots_.size() ? shots_[nextShot_].at : kNever;
        return std::min({made, shot, waiting_.empty() ? kNever : waiting_.top().send});
    }

    Stamp stampAt(Nanoseconds time) const
    {
        Stamp stamp = options_.stamp == "zero" ? Stamp{} : stampOf(clock_.at(time));
        stamp.word |= options_.stamp == "absolute" ? 1u : 0u;
        return stamp;
    }

    // The state belongs to the time that the stamp says, which is a little before the time asked for.
    vuEntityState reportAt(std::size_t index, Nanoseconds time) const
    {
        const SimulatedEntity &entity = entities_[index];
        const Stamp stamp = stampAt(time);
        vuEntityState report =
            reportOf(entity.motion, static_cast<double>(time - stamp.remainder) * 1e-9, frame_, entity.algorithm);
        report.timestamp = stamp.word;
        report.protocolVersion = static_cast<std::uint8_t>(options_.version);
        report.exerciseId = static_cast<std::uint8_t>(options_.exercise);
        report.entityId = entity.id;
        report.marking = entity.marking;
        return report;
    }

    void add(const vuEntityState &report)
    {
        outbox_.add(report, kEntityStateSize, encodeEntityState);
    }

    // What both have in common. The first entity fires, or, without any, the application.
    template<class Record>
    Record recordOf(const Shot &shot) const
    {
        Record record{};
        record.header.protocolVersion = static_cast<std::uint8_t>(options_.version);
        record.header.exerciseId = static_cast<std::uint8_t>(options_.exercise);
        record.header.timestamp = stampAt(shot.at).word;
        record.firing = {options_.site, options_.application,
                         entities_.empty() ? std::uint16_t{0} : entities_[0].id.entity};
        record.event = {options_.site, options_.application, shot.number};
        record.descriptor = kRound;
        std::ranges::copy(shot.location, record.location);
        return record;
    }

    // Every entity says that it leaves. Neither loss nor delay is simulated here, and nobody who stopped the program waits
    // longer than a second.
    void leave()
    {
        const Nanoseconds start = pace_.now();
        const auto count = static_cast<Nanoseconds>(entities_.size());
        const Nanoseconds step = std::min(schedule_.interval(), kSecond) / std::max<Nanoseconds>(count, 1);
        for (std::size_t i = 0; i < entities_.size(); ++i)
        {
            if (i % groupSize(options_) == 0)
            {
                pace_.waitUntil(start + static_cast<Nanoseconds>(i) * step);
            }
            vuEntityState report = reportAt(i, pace_.now());
            report.appearance |= kAppearanceDeactivated;
            add(report);
        }
        outbox_.flush();
    }

    const SendOptions &options_;
    std::vector<SimulatedEntity> entities_;
    std::vector<Shot> shots_; // earliest first
    LocalFrame frame_;
    Schedule schedule_;
    Outbox outbox_;
    std::mt19937 random_;
    Nanoseconds end_;
    std::uint64_t next_ = 0; // report to make
    std::size_t nextShot_ = 0;
    std::uint64_t dropped_ = 0;
    std::uint64_t skipped_ = 0;
    std::priority_queue<Due, std::vector<Due>, std::greater<>> waiting_;
    SkewedClock clock_;
    Pacer pace_;
};

void runSend(const SendOptions &options)
{
    Generator generator(options);
    generator.run();
    if (!options.quiet)
    {
        generator.printSummary();
        flushOutput();
    }
}

void addNetworkOptions(const Command &command, SendOptions &o)
{
    command.add("--to", o.to, "ADDRESS[:PORT] to send to: unicast, broadcast or multicast");
    command.add("--interface", o.interface, "address of the local interface to send from");
    command.add("--ttl", o.timeToLive, "hops that a multicast may take").check(within(0, 255));
    command.addFlag("--bundle", o.bundle, "put what is due together into datagrams of up to 1400 bytes");
    command.add("--loss", o.loss, "percent of the reports to drop").check(within(0.0, 100.0));
    command.add("--jitter", o.jitter, "longest random delay of a report, seconds").check(within(0.0, 60.0));
}

void addIdentityOptions(const Command &command, SendOptions &o)
{
    command.add("--version", o.version, "DIS protocol version").check(within(5, 7));
    command.add("--exercise", o.exercise, "exercise number").check(within(1, 255));
    command.add("--site", o.site, "site number").check(within(0, 65534));
    command.add("--application", o.application, "application number").check(within(0, 65534));
    command.add("--entities", o.entities, "number of entities, 0 for shots and detonations alone")
        .check(within(0, 65534));
    command.add("--first-entity", o.firstEntity, "number of the first entity").check(within(1, 65534));
    command.add("--marking", o.marking, "start of the markings, before the entity number");
    command.addFlag("--leave", o.leave, "let every entity say at the end that it leaves");
}

void addShotOptions(const Command &command, SendOptions &o)
{
    command
        .add("--fire", o.fires,
             "LAT,LON,HEIGHT[,AT] of a shot, degrees, metres and seconds after the start; may be repeated")
        .hideDefault()
        .onePerUse();
    command.add("--detonate", o.detonations, "LAT,LON,HEIGHT[,AT] where a munition hits the ground; may be repeated")
        .hideDefault()
        .onePerUse();
}

void addMotionOptions(const Command &command, SendOptions &o)
{
    command
        .add("--motion", o.motions,
             "motions to give to the entities in turn: static, line, accelerate, circle, "
             "helix, weave, or all")
        .splitAt(',');
    command
        .add("--algorithm", o.algorithms,
             "dead-reckoning algorithms to give to the entities in turn, such as "
             "2,4 or 1-9")
        .splitAt(',');
    command.add("--origin", o.origin, "LAT,LON[,HEIGHT] in the middle of all entities, degrees and metres");
    command.add("--speed", o.pattern.speed, "m/s").check(within(0.0, 10000.0));
    command.add("--radius", o.pattern.radius, "of circle and helix, metres").check(within(1.0, 1e6));
    command.add("--acceleration", o.pattern.acceleration, "of accelerate, m/s^2").check(within(0.0, 1000.0));
    command.add("--climb", o.pattern.climbRate, "of helix, m/s upwards").check(within(-1000.0, 1000.0));
}

void addTimeOptions(const Command &command, SendOptions &o)
{
    command.add("--rate", o.rate, "reports per second of each entity").check(within(0.001, 1000.0));
    command.add("--duration", o.duration, "seconds, 0 for no end, without entities for the last shot")
        .check(within(0.0, 1e9));
    command.add("--stamp", o.stamp, "relative, absolute or zero time stamps").oneOf({"relative", "absolute", "zero"});
    command.add("--clock-offset", o.clockOffset, "seconds by which the sender's clock is fast")
        .check(within(-1e6, 1e6));
    command.add("--clock-drift", o.clockDrift, "seconds in a million that it gains").check(within(-1e5, 1e5));
    command.add("--seed", o.seed, "of the random loss and delay");
    command.addFlag("--quiet", o.quiet, "print no summary");
}

} // namespace

void addSendCommand(CommandLine &line)
{
    const auto options = std::make_shared<SendOptions>();
    const Command command =
        line.addCommand("send", "send DIS reports of entities on given motions", [options] { runSend(*options); });
    command.showDefaults();
    command.widerHelp();
    addNetworkOptions(command, *options);
    addIdentityOptions(command, *options);
    addShotOptions(command, *options);
    addMotionOptions(command, *options);
    addTimeOptions(command, *options);
}

} // namespace tolvin
