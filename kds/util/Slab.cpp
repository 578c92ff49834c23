#include "kds/util/Slab.h"

#include <algorithm>
#include <cassert>
#include <new>

#include "kds/platform/Pages.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif

namespace kds {
namespace {

// A freed block is out of bounds for the address sanitizer, as a freed allocation would be.
void Poison([[maybe_unused]] void* block, [[maybe_unused]] std::size_t size) noexcept {
#if defined(__SANITIZE_ADDRESS__)
    ASAN_POISON_MEMORY_REGION(block, size);
#endif
}
void Unpoison([[maybe_unused]] void* block, [[maybe_unused]] std::size_t size) noexcept {
#if defined(__SANITIZE_ADDRESS__)
    ASAN_UNPOISON_MEMORY_REGION(block, size);
#endif
}

constexpr std::size_t RoundUp(std::size_t size, std::size_t grain) noexcept {
    return (size + grain - 1) / grain * grain;
}

}  // namespace

TSlab* TSlab::Create(std::size_t blockSize, std::size_t alignment, std::size_t firstBlocks) {
    assert(alignment >= alignof(void*) && alignment <= static_cast<std::size_t>(ChunkAlignment));
    return new TSlab(RoundUp(std::max(blockSize, sizeof(void*)), alignment), firstBlocks);
}

TSlab::TSlab(std::size_t blockSize, std::size_t firstBlocks) noexcept
    : fBlockSize(blockSize),
      fHead(static_cast<std::size_t>(ChunkAlignment)),
      fFirstBlocks(firstBlocks) {}

// Chunks from the heap double all there is. Those of large pages grow with the slab, so that their
// number stays small; what is not touched of them takes no memory.
void TSlab::AddChunk() {
    const bool mapped = fTotal >= LargestHeapTotal;
    const std::size_t size = mapped
                                 ? RoundUp(std::max(fTotal / 32, fHead + fBlockSize), LargePage)
                                 : std::max(fHead + (fTotal == 0 ? fFirstBlocks : 1) * fBlockSize,
                                            std::min(fTotal, LargestHeapChunk));
    auto* const chunk =
        static_cast<TChunk*>(mapped ? Pages().Map(size) : ::operator new(size, ChunkAlignment));
    *chunk = {fChunks, size, mapped};
    fChunks = chunk;
    fTotal += size;
    fCut = reinterpret_cast<std::byte*>(chunk) + fHead;
    fEnd = fCut + (size - fHead) / fBlockSize * fBlockSize;
    Poison(fCut, static_cast<std::size_t>(fEnd - fCut));
}

void* TSlab::TakeBlock() noexcept {
    ++fLive;
    void* block = fFreed;
    if (block == nullptr) {
        block = fCut;
        fCut += fBlockSize;
        Unpoison(block, fBlockSize);
        return block;
    }
    Unpoison(block, fBlockSize);
    fFreed = *static_cast<void**>(block);
    return block;
}

void TSlab::Free(void* block) noexcept {
    *static_cast<void**>(block) = fFreed;
    fFreed = block;
    Poison(block, fBlockSize);
    if (--fLive > 0) return;
    DropChunks();
    if (fAbandoned) delete this;
}

void TSlab::DropChunks() noexcept {
    while (fChunks != nullptr) {
        TChunk* const chunk = fChunks;
        const std::size_t size = chunk->Size;
        fChunks = chunk->Next;
        if (chunk->Mapped) {
            // Others may be given these addresses.
            Unpoison(chunk, size);
            Pages().Unmap(chunk, size);
        } else {
            // The sanitizer forgets what it was told when the memory goes back.
            ::operator delete(chunk, ChunkAlignment);
        }
    }
    fFreed = nullptr;
    fCut = fEnd = nullptr;
    fTotal = 0;
}

void TSlab::Abandon() noexcept {
    fAbandoned = true;
    if (fLive > 0) return;
    DropChunks();
    delete this;
}

}  // namespace kds
