#include "kds/platform/Object.h"

namespace kds {

void TObject::FreeForced() noexcept {
    // The owner is going down, so there is nobody left who could keep the object: a refusal, or
    // an announcement that ran out of memory, changes nothing.
    try {
        BeforeDestruction();
    } catch (...) {
    }
    Teardown();
    Dispose();
}

}  // namespace kds
