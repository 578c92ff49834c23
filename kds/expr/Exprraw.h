// Values in the buffers of records: read into slots, or compared with a constant as they lie there.
//
// Shape      A comparison is prepared once: the constant is brought to the column's form, and where
//            no value of the column equals it the comparison is rewritten (an integer > 1.5 is
//            >= 2; beyond the column's range it holds always or never). What cannot be brought
//            there exactly is not prepared and takes the general path.
// Threads    A prepared comparison is read only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "kds/expr/Expressions.h"
#include "kds/expr/Exprops.h"
#include "kds/platform/Bytes.h"

namespace kds {

[[nodiscard]] inline bool HasRawValue(const TExprRawPlace& place,
                                      const std::byte* buffer) noexcept {
    return (LoadRaw<std::uint32_t>(buffer + place.NullOffset) & place.NullMask) != 0;
}
// 8-bit texts are borrowed from the buffer.
[[nodiscard]] TExprSlot ReadRaw(const TExprRawPlace& place, const std::byte* buffer,
                                TExprArena& arena);

class TExprRawCompare {
public:
    [[nodiscard]] static std::optional<TExprRawCompare> Prepare(const TExprColumn& column,
                                                                TExprOp op, const TExprSlot& value,
                                                                TExprCompare how);
    // 1, 0, or -1 for null.
    [[nodiscard]] int Test(const std::byte* buffer, TExprArena& arena) const;

private:
    enum class TForm : std::uint8_t { Never, Always, Integer, Float, Fixed, Ansi, Wide };
    [[nodiscard]] bool PrepareInteger(const TExprSlot& value, std::int32_t decimals);
    [[nodiscard]] std::int64_t LoadInteger(const std::byte* data) const noexcept;
    void Outside(bool above) noexcept;

    TExprRawPlace fPlace;
    TForm fForm = TForm::Never;
    TExprOp fOp = opEqual;
    TExprCollation fCollation;
    TExprSlot fConstant;
    std::u16string fWide;
};

}  // namespace kds
