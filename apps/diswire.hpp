// Network byte order, for both directions: visitors of the fields of PDUs (disfields.hpp).
#pragma once

#include "disfields.hpp"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <tuple>
#include <type_traits>

namespace tolvin
{

template<std::size_t size>
using Word = std::conditional_t<
    size == 1, std::uint8_t,
    std::conditional_t<size == 2, std::uint16_t, std::conditional_t<size == 4, std::uint32_t, std::uint64_t>>>;

template<class Field>
concept Array = std::is_array_v<Field> || requires
{
    std::tuple_size<Field>::value;
};

// Reads big-endian fields one after another. Past the end it gives zeros and remembers that it was asked for them.
class WireReader
{
public:
    explicit WireReader(std::span<const std::uint8_t> source) : bytes(source)
    {
    }

    template<class Field>
    void operator()(const char *, Field &field)
    {
        if constexpr (Array<Field>)
        {
            for (auto &element : field)
            {
                (*this)(nullptr, element);
            }
        }
        else if constexpr (std::is_class_v<Field>)
        {
            fieldsOf(*this, field);
        }
        else
        {
            Word<sizeof(Field)> word = 0;
            for (const std::uint8_t byte : take(sizeof(Field)))
            {
                word = static_cast<Word<sizeof(Field)>>(std::uint64_t{word} << 8 | byte);
            }
            std::memcpy(&field, &word, sizeof field); // a float in a register of i386 may lose what kind of NaN it is
        }
    }

    std::span<const std::uint8_t> take(std::uint64_t count)
    {
        const bool enough = count <= bytes.size();
        exhausted = exhausted || !enough;
        const auto taken = bytes.first(enough ? static_cast<std::size_t>(count) : 0);
        bytes = bytes.subspan(enough ? taken.size() : bytes.size());
        return taken;
    }

    std::span<const std::uint8_t> rest() const
    {
        return bytes;
    }

    bool overrun() const
    {
        return exhausted;
    }

private:
    std::span<const std::uint8_t> bytes;
    bool exhausted = false;
};

// Writes big-endian fields one after another into room that the caller has made sure of.
class WireWriter
{
public:
    explicit WireWriter(std::span<std::uint8_t> target) : bytes(target)
    {
    }

    template<class Field>
    void operator()(const char *, const Field &field)
    {
        if constexpr (Array<Field>)
        {
            for (const auto &element : field)
            {
                (*this)(nullptr, element);
            }
        }
        else if constexpr (std::is_class_v<Field>)
        {
            fieldsOf(*this, field);
        }
        else
        {
            std::uint64_t word = std::bit_cast<Word<sizeof(Field)>>(field);
            for (std::size_t i = sizeof(Field); i-- > 0; word >>= 8)
            {
                bytes[i] = static_cast<std::uint8_t>(word);
            }
            bytes = bytes.subspan(sizeof(Field));
        }
    }

    void put(std::span<const std::uint8_t> raw)
    {
        std::ranges::copy(raw, bytes.begin());
        bytes = bytes.subspan(raw.size());
    }

private:
    std::span<std::uint8_t> bytes;
};

} // namespace tolvin
