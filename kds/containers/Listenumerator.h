// Enumerators over positional lists: one interface, walked from either end.
//
// Ownership  Reference-counted, and independent of the list's life: an enumerator that outlives its
//            list has ended.
#pragma once

#include <cstdint>

#include "kds/platform/Interface.h"

namespace kds {

enum class TListEnumeratorDirection : std::uint8_t { ledForward, ledReverse };
using enum TListEnumeratorDirection;

class IListEnumerator : public IInterface {
public:
    // Steps to the next item; false when there is none, and from then on.
    virtual bool MoveNext() = 0;
    // The item stood on; nullptr before the first step, after the last one, and when the item was
    // removed from the list since.
    [[nodiscard]] virtual void* GetCurrent() const = 0;
};

}  // namespace kds
