#include "kds/fixed/FormatSettings.h"

#include <atomic>

namespace kds {
namespace {

constinit std::atomic<TFormatSettings> defaultSettings{TFormatSettings{}};
static_assert(std::atomic<TFormatSettings>::is_always_lock_free);

}  // namespace

TFormatSettings DefaultFormatSettings() noexcept {
    return defaultSettings.load(std::memory_order_relaxed);
}

void SetDefaultFormatSettings(TFormatSettings settings) noexcept {
    defaultSettings.store(settings, std::memory_order_relaxed);
}

}  // namespace kds
