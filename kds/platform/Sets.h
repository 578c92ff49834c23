// Typed sets of enumeration values: bit n stands for the value with ordinal n.
#pragma once

#include <cstdint>
#include <initializer_list>

namespace kds {

template <typename E>
class TSet {
public:
    constexpr TSet() = default;
    constexpr TSet(std::initializer_list<E> members) {
        for (const E member : members) Include(member);
    }
    [[nodiscard]] static constexpr TSet FromBits(std::uint32_t bits) {
        TSet set;
        set.fBits = bits;
        return set;
    }
    [[nodiscard]] constexpr std::uint32_t Bits() const noexcept { return fBits; }
    [[nodiscard]] constexpr bool Has(E member) const noexcept { return (fBits & Bit(member)) != 0; }
    [[nodiscard]] constexpr bool HasAny(TSet other) const noexcept {
        return (fBits & other.fBits) != 0;
    }
    [[nodiscard]] constexpr bool HasAll(TSet other) const noexcept {
        return (other.fBits & ~fBits) == 0;
    }
    [[nodiscard]] constexpr bool Empty() const noexcept { return fBits == 0; }
    constexpr void Include(E member) noexcept { fBits |= Bit(member); }
    constexpr void Exclude(E member) noexcept { fBits &= ~Bit(member); }
    constexpr void Set(E member, bool present) noexcept {
        present ? Include(member) : Exclude(member);
    }
    friend constexpr TSet operator|(TSet a, TSet b) noexcept { return FromBits(a.fBits | b.fBits); }
    friend constexpr TSet operator&(TSet a, TSet b) noexcept { return FromBits(a.fBits & b.fBits); }
    friend constexpr TSet operator-(TSet a, TSet b) noexcept {
        return FromBits(a.fBits & ~b.fBits);
    }
    friend constexpr bool operator==(TSet, TSet) = default;

private:
    static constexpr std::uint32_t Bit(E member) noexcept {
        return std::uint32_t{1} << static_cast<std::uint32_t>(member);
    }
    std::uint32_t fBits = 0;
};

}  // namespace kds
