#include "kds/platform/Ansistring.h"

#include <cstring>
#include <new>

namespace kds {

TAnsiString::TAnsiString(std::string_view text) {
    if (text.empty()) return;
    void* const memory = ::operator new(sizeof(TBlock) + text.size() + 1);
    fBlock = new (memory) TBlock{1, static_cast<std::uint32_t>(text.size())};
    char* const characters = reinterpret_cast<char*>(fBlock + 1);
    std::memcpy(characters, text.data(), text.size());
    characters[text.size()] = '\0';
}

void TAnsiString::Free(void* handle) noexcept { ::operator delete(handle); }

}  // namespace kds
