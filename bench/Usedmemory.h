// How many bytes the program has taken: from malloc, and from the library's own pages.
#pragma once

#include <malloc.h>

#include <cstddef>

#include "kds/platform/Pages.h"

namespace kds {

// Counts what goes to the system and comes back.
class TCountedPages final : public IPages {
public:
    explicit TCountedPages(IPages& system) : fSystem(system) { SetPages(this); }
    void* Map(std::size_t size) override {
        void* const block = fSystem.Map(size);
        Mapped += size;
        return block;
    }
    void Unmap(void* block, std::size_t size) noexcept override {
        fSystem.Unmap(block, size);
        Mapped -= size;
    }
    std::size_t Mapped = 0;

private:
    IPages& fSystem;
};

// Ask once before what is to be counted is made: pages count from then on.
inline double UsedMemory() {
    static auto* const pages = new TCountedPages(Pages());  // blocks may outlive everything
    const struct mallinfo2 info = mallinfo2();
    return static_cast<double>(info.uordblks + info.hblkhd + pages->Mapped);
}

}  // namespace kds
