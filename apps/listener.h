// What tolvin listen does with the datagrams that it hears or reads: takes their PDUs apart, shows those that are asked for,
// and counts.
#pragma once

#include "dismessage.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace tolvin
{

// PDUs pass that have one of the values of each list that is not empty. PDUs without such a thing do not.
struct PduFilter
{
    std::vector<int> exercises = {};
    std::vector<int> sites = {}; // of the entity that a PDU is about, or that sent it
    std::vector<int> applications = {};
    std::vector<int> types = {};
    std::vector<int> kinds = {}; // of entity, in Entity State PDUs
};

bool passes(const PduFilter &filter, const DisMessage &message);

enum class PduView
{
    Fields, // printMessage, with a line about the datagram before and an empty one after each PDU
    Line,
    Json, // an object a line, with "time" in seconds since 1970 and "from"
    None
};

class Listener
{
public:
    // A line for the person at the screen, without a newline.
    using NoticeSink = std::function<void(const std::string &line)>;

    // out is where PDUs are shown, at most so many, 0 for all; each kind of fault is told once.
    Listener(PduFilter filter, PduView view, std::uint64_t most, std::FILE *out, NoticeSink notice);

    // Takes a datagram of any content that came from there at that time, nanoseconds since 1970.
    void take(std::span<const std::uint8_t> datagram, std::int64_t time, const std::string &from);

    // Whether as many passed as there were to be.
    bool isEnough() const
    {
        return most_ > 0 && passed_ == most_;
    }

    // PDUs that passed so far.
    std::uint64_t passed() const
    {
        return passed_;
    }

    // A table of those who sent what passed: PDUs, bytes, and the rate between the earliest and the latest.
    void printSenders(std::FILE *out) const;

    // A line for all.
    std::string totals() const;

private:
    // Of one address, and where PDUs tell it, one site and application.
    struct Sender
    {
        std::uint64_t pdus = 0;
        std::uint64_t bytes = 0;
        std::int64_t earliest = 0;
        std::int64_t latest = 0;
        std::uint64_t atEarliest = 0; // PDUs
    };

    void show(const DisMessage &message, std::int64_t time, const std::string &from) const;
    void count(const DisMessage &message, std::int64_t time, const std::string &from);
    void tell(PduFault fault, const std::string &from);

    PduFilter filter_;
    PduView view_;
    std::uint64_t most_;
    std::FILE *out_;
    NoticeSink notice_;
    std::map<std::pair<std::string, std::optional<std::pair<int, int>>>, Sender> senders_;
    std::array<std::uint64_t, kPduFaultCount> faults_{};
    bool hasOthers_ = false; // senders for which there was no room
    std::uint64_t datagrams_ = 0;
    std::uint64_t pdus_ = 0;
    std::uint64_t passed_ = 0;
};

} // namespace tolvin
