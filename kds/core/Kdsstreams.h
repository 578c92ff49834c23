// What a host brings to the saving and loading of a table, and what it gets back.
//
// Shape      A stream holds the version, the structure if wanted, and the records one by one:
//            their buffers as far as they are in use, and what does not lie in a buffer behind
//            them. docs/formats.md shows the bytes. TKdsTable has the operations.
// Units      Steps of progress are records.
// Ownership  Both borrow the progress; a refused row is freed by the loader.
// Errors     EKdsStreamError (Kdserrors.h) for a stream that cannot be loaded.
#pragma once

#include <cstdint>

#include "kds/platform/Delegate.h"
#include "kds/platform/Stream.h"

namespace kds {

class TKdsRecord;
class TKdsTable;

// Sees how far a long operation has come. It may read the table, not change it.
class IKdsProgress {
public:
    virtual void Start(std::int32_t total) = 0;
    [[nodiscard]] virtual bool Step(std::int32_t count) = 0;  // false stops the operation

protected:
    ~IKdsProgress() = default;
};

// A row on its way into the table, still detached: it may be changed, or refused with false.
using TKdsLoadRecordEvent = TDelegate<void(TKdsTable*, TKdsRecord*, bool&)>;

struct TKdsLoadResult {
    std::int32_t Loaded = 0;
    std::int32_t Refused = 0;  // by OnRecord
    // Values of virtual keys that no master row holds: they read as a lookup that leads nowhere.
    std::int32_t Unresolved = 0;
    bool Stopped = false;  // by the progress: nothing was loaded
};

}  // namespace kds
