// Any bytes as a datagram: what is taken over comes back as the same bytes, and can be shown.
#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include <tolvin/apps/dismessage.h>
#include <tolvin/apps/distext.h>

using namespace tolvin;

static void require(bool condition)
{
    if (!condition)
    {
        std::abort();
    }
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static std::FILE *const nowhere = std::fopen("/dev/null", "w");
    PduReader reader({data, size});
    for (Pdu pdu; reader.next(pdu);)
    {
        DisMessage message;
        const PduFault fault = decode(pdu, message);
        require(fault == checkCounts(pdu));
        if (fault == PduFault::None)
        {
            require(std::ranges::equal(encode(message), pdu.bytes));
            printMessage(nowhere, message);
            require(!lineOf(message).empty() && jsonOf(message).ends_with('}'));
        }
    }
    return 0;
}
