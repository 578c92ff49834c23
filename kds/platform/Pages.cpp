#include "kds/platform/Pages.h"

#include <sys/mman.h>

#include <cstdint>
#include <new>

#include "kds/platform/Seam.h"

namespace kds {
namespace {

class TSystemPages final : public IPages {
public:
    void* Map(std::size_t size) override {
        // A page more, so that there is a multiple of it inside; what lies around it goes back.
        const std::size_t room = size + LargePage;
        void* const mapped =
            ::mmap(nullptr, room, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (mapped == MAP_FAILED) throw std::bad_alloc();
        auto* const first = static_cast<std::byte*>(mapped);
        const std::size_t before =
            (LargePage - reinterpret_cast<std::uintptr_t>(first)) % LargePage;
        if (before != 0) Unmap(first, before);
        Unmap(first + before + size, LargePage - before);
#ifdef MADV_HUGEPAGE
        // A wish: without large pages small ones serve.
        (void)::madvise(first + before, size, MADV_HUGEPAGE);
#endif
        return first + before;
    }
    void Unmap(void* block, std::size_t size) noexcept override { (void)::munmap(block, size); }
};

constinit TSeam<IPages, TSystemPages> current;

}  // namespace

IPages& Pages() noexcept { return current.Get(); }
void SetPages(IPages* pages) noexcept { current.Set(pages); }

}  // namespace kds
