// The two characters of a number format, and the process-wide choice of them.
//
// Shape      A separator of 0 means none; it never matches a zero character in a text.
// Threads    The process-wide settings are one atomic value: any thread may read or set them.
#pragma once

namespace kds {

struct TFormatSettings {
    char16_t DecimalSeparator = u'.';
    char16_t ThousandSeparator = u',';
    friend bool operator==(TFormatSettings, TFormatSettings) = default;
};

// Used wherever a conversion is not given settings of its own. Starts as "." and ",". The text
// forms in which values are exchanged rely on the ".", so a host that changes it gives up reading
// them elsewhere.
[[nodiscard]] TFormatSettings DefaultFormatSettings() noexcept;
void SetDefaultFormatSettings(TFormatSettings settings) noexcept;

}  // namespace kds
