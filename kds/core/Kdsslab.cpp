#include "kds/core/Kdsslab.h"

#include <algorithm>
#include <new>

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

}  // namespace

TKdsSlab* TKdsSlab::Create(std::size_t blockSize) {
    constexpr std::size_t grain = alignof(void*);
    return new TKdsSlab((std::max(blockSize, sizeof(void*)) + grain - 1) / grain * grain);
}

void TKdsSlab::AddChunk() {
    const std::size_t size = fChunkSize == 0 ? sizeof(TChunk) + FirstChunkBlocks * fBlockSize
                                             : std::max(std::min(fChunkSize * 2, LargestChunk),
                                                        sizeof(TChunk) + fBlockSize);
    auto* const chunk = static_cast<TChunk*>(::operator new(size));
    chunk->Next = fChunks;
    fChunks = chunk;
    fChunkSize = size;
    fCut = reinterpret_cast<std::byte*>(chunk + 1);
    fEnd = fCut + (size - sizeof(TChunk)) / fBlockSize * fBlockSize;
    Poison(fCut, static_cast<std::size_t>(fEnd - fCut));
}

void* TKdsSlab::TakeBlock() noexcept {
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

void TKdsSlab::Free(void* block) noexcept {
    *static_cast<void**>(block) = fFreed;
    fFreed = block;
    Poison(block, fBlockSize);
    if (--fLive > 0) return;
    DropChunks();
    if (fAbandoned) delete this;
}

void TKdsSlab::DropChunks() noexcept {
    while (fChunks != nullptr) {
        TChunk* const chunk = fChunks;
        fChunks = chunk->Next;
        // The sanitizer forgets what it was told when the memory goes back.
        ::operator delete(chunk);
    }
    fFreed = nullptr;
    fCut = fEnd = nullptr;
    fChunkSize = 0;
}

void TKdsSlab::Abandon() noexcept {
    fAbandoned = true;
    if (fLive > 0) return;
    DropChunks();
    delete this;
}

}  // namespace kds
