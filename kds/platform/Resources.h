// The resources that are compiled into the library, byte for byte as their files stand.
//
// Ownership  Constant data of the program; the source is made from resources/ by the build.
#pragma once

#include <span>
#include <string_view>

namespace kds {

struct TResource {
    std::u16string_view Name;
    std::string_view Bytes;
};

[[nodiscard]] std::span<const TResource> Resources() noexcept;

}  // namespace kds
