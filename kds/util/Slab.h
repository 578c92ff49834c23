// Memory for very many blocks of one size: the rows of a table, the buckets of a list.
//
// Shape      Blocks are cut from chunks of the heap, which grow from a few blocks to 1 MiB, and
//            once there are 8 MiB, from chunks of large pages, each a thirty-second of what is
//            there. Freed blocks are used again, latest first; all chunks go back to the system
//            when no block is alive.
// Ownership  Who creates a slab abandons it; blocks that are still alive, a table's detached rows
//            for instance, keep it until the last of them is freed.
// Errors     std::bad_alloc from Create and Allocate.
// Cost       Allocate and Free O(1); a block costs its size and nothing else.
// Threads    One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>

namespace kds {

class TSlab {
public:
    // `alignment` of the blocks: a power of two, up to that of a line of the cache. `firstBlocks`:
    // so many lie in the first chunk.
    [[nodiscard]] static TSlab* Create(std::size_t blockSize,
                                       std::size_t alignment = alignof(void*),
                                       std::size_t firstBlocks = 64);
    [[nodiscard]] void* Allocate() {
        if (fFreed == nullptr && fCut == fEnd) AddChunk();
        return TakeBlock();
    }
    // Sees to it that the next Allocate needs no memory.
    void Reserve() {
        if (fFreed == nullptr && fCut == fEnd) AddChunk();
    }
    void Free(void* block) noexcept;
    void Abandon() noexcept;
    [[nodiscard]] std::int64_t Live() const noexcept { return fLive; }

private:
    struct TChunk {
        TChunk* Next;
        std::size_t Size;
        bool Mapped;
    };
    static constexpr std::align_val_t ChunkAlignment{64};
    static constexpr std::size_t LargestHeapChunk = std::size_t{1} << 20;
    static constexpr std::size_t LargestHeapTotal = std::size_t{8} << 20;

    TSlab(std::size_t blockSize, std::size_t firstBlocks) noexcept;
    ~TSlab() = default;
    void AddChunk();
    [[nodiscard]] void* TakeBlock() noexcept;
    void DropChunks() noexcept;

    std::size_t fBlockSize;
    std::size_t fHead;  // bytes of a chunk before its first block, which begins a line
    std::size_t fFirstBlocks;
    std::size_t fTotal = 0;  // bytes of all chunks
    TChunk* fChunks = nullptr;
    std::byte* fCut = nullptr;  // of the newest chunk: what has not been handed out yet
    std::byte* fEnd = nullptr;
    void* fFreed = nullptr;  // chain through the freed blocks' first word
    std::int64_t fLive = 0;
    bool fAbandoned = false;
};

struct TSlabDeleter {
    void operator()(TSlab* slab) const noexcept { slab->Abandon(); }
};

}  // namespace kds
