#include "listener.h"

#include "counted.h"
#include "distext.h"

#include <algorithm>
#include <numeric>

namespace tolvin
{

namespace
{

constexpr std::size_t kMostSenders = 10'000; // a flood of made-up ones is no table

bool isOneOf(const std::vector<int> &wanted, std::optional<int> value)
{
    return wanted.empty() || (value.has_value() && std::ranges::find(wanted, *value) != wanted.end());
}

// Seconds since 1970, with all nanoseconds.
std::string timeText(std::int64_t time)
{
    std::array<char, 40> text;
    const std::int64_t second = 1'000'000'000;
    const std::int64_t whole = time / second - (time % second < 0);
    std::snprintf(text.data(), text.size(), "%lld.%09lld", static_cast<long long>(whole),
                  static_cast<long long>(time - whole * second));
    return text.data();
}

unsigned long long number(std::uint64_t value)
{
    return value;
}

} // namespace

bool passes(const PduFilter &filter, const DisMessage &message)
{
    const PduHeader header = headerOf(message);
    const std::optional<vuEntityId> subject = subjectOf(message);
    const auto *const state = std::get_if<vuEntityState>(&message.record);
    const auto of = [&](auto member) { return subject ? std::optional<int>((*subject).*member) : std::nullopt; };
    return isOneOf(filter.exercises, header.exerciseId) && isOneOf(filter.types, header.pduType) &&
           isOneOf(filter.sites, of(&vuEntityId::site)) && isOneOf(filter.applications, of(&vuEntityId::application)) &&
           isOneOf(filter.kinds, state != nullptr ? std::optional<int>(state->entityType.kind) : std::nullopt);
}

Listener::Listener(PduFilter filter, PduView view, std::uint64_t most, std::FILE *out, NoticeSink notice)
    : filter_(std::move(filter)),
      view_(view),
      most_(most),
      out_(out),
      notice_(std::move(notice))
{
}

void Listener::take(std::span<const std::uint8_t> datagram, std::int64_t time, const std::string &from)
{
    ++datagrams_;
    PduReader reader(datagram);
    for (Pdu pdu; !isEnough() && reader.next(pdu);)
    {
        ++pdus_;
        DisMessage message;
        if (const PduFault fault = decode(pdu, message); fault != PduFault::None)
        {
            tell(fault, from);
        }
        else if (passes(filter_, message))
        {
            ++passed_;
            count(message, time, from);
            show(message, time, from);
        }
    }
    if (reader.fault() != PduFault::None)
    {
        tell(reader.fault(), from);
    }
}

void Listener::tell(PduFault fault, const std::string &from)
{
    if (faults_[static_cast<std::size_t>(fault)]++ == 0)
    {
        notice_(from + ": " + faultText(fault) + " (further times are only counted)");
    }
}

void Listener::show(const DisMessage &message, std::int64_t time, const std::string &from) const
{
    switch (view_)
    {
    case PduView::Fields:
        std::fprintf(out_, "%s from %s\n", timeText(time).c_str(), from.c_str());
        printMessage(out_, message);
        std::fputc('\n', out_);
        break;
    case PduView::Line:
        std::fprintf(out_, "%s %s %s\n", timeText(time).c_str(), from.c_str(), lineOf(message).c_str());
        break;
    case PduView::Json:
        std::fprintf(out_, "{\"time\":%s,\"from\":%s,%s\n", timeText(time).c_str(), jsonText(from).c_str(),
                     jsonOf(message).c_str() + 1);
        break;
    case PduView::None:
        break;
    }
}

void Listener::count(const DisMessage &message, std::int64_t time, const std::string &from)
{
    const std::optional<vuEntityId> id = subjectOf(message);
    std::optional<std::pair<int, int>> who;
    if (id)
    {
        who.emplace(id->site, id->application);
    }
    if (senders_.size() == kMostSenders && !senders_.contains({from, who}))
    {
        hasOthers_ = true;
        return;
    }
    Sender &sender = senders_.try_emplace({from, who}, Sender{.earliest = time, .latest = time}).first->second;
    ++sender.pdus;
    sender.bytes += headerOf(message).length;
    sender.atEarliest = time < sender.earliest ? 0 : sender.atEarliest;
    sender.earliest = std::min(sender.earliest, time);
    sender.latest = std::max(sender.latest, time);
    sender.atEarliest += time == sender.earliest ? 1 : 0;
}

// What came after the earliest, be it one PDU or a datagram full of them, in the time since. That alone has no rate.
void Listener::printSenders(std::FILE *out) const
{
    std::fprintf(out, "%-24s %-12s %10s %12s %10s\n", "address", "site:app", "PDUs", "bytes", "PDUs/s");
    for (const auto &[who, sender] : senders_)
    {
        const auto &[from, id] = who;
        const double seconds = static_cast<double>(sender.latest - sender.earliest) * 1e-9;
        const std::string name = id ? std::to_string(id->first) + ':' + std::to_string(id->second) : "-";
        std::fprintf(out, "%-24s %-12s %10llu %12llu ", from.c_str(), name.c_str(), number(sender.pdus),
                     number(sender.bytes));
        if (seconds > 0.0)
        {
            std::fprintf(out, "%10.2f\n", static_cast<double>(sender.pdus - sender.atEarliest) / seconds);
        }
        else
        {
            std::fprintf(out, "%10s\n", "-");
        }
    }
    if (hasOthers_)
    {
        std::fputs("and others\n", out);
    }
}

std::string Listener::totals() const
{
    const std::uint64_t faults = std::accumulate(faults_.begin(), faults_.end(), std::uint64_t{0});
    const auto passed = std::to_string(passed_);
    return counted(datagrams_, "datagram") + ", " + counted(pdus_, "PDU") + ", of which " + passed + " asked for, " +
           counted(faults, "fault");
}

} // namespace tolvin
