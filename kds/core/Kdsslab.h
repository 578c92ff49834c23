// Memory of a table's rows: blocks of one size, a record and its home buffer in each.
//
// Shape      Blocks are cut from chunks that double in size from 64 blocks up to about 1 MiB.
//            Freed blocks are used again, latest first; all chunks go back to the system when no
//            block is alive.
// Ownership  The table owns its slab and abandons it when the layout changes or the table goes;
//            rows that are still alive, detached ones of the host, keep it until the last of them
//            is freed.
// Errors     std::bad_alloc from Allocate.
// Cost       Allocate and Free O(1); a block costs its size and nothing else.
// Threads    One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kds {

class TKdsSlab {
public:
    [[nodiscard]] static TKdsSlab* Create(std::size_t blockSize);
    [[nodiscard]] void* Allocate() {
        if (fFreed == nullptr && fCut == fEnd) AddChunk();
        return TakeBlock();
    }
    void Free(void* block) noexcept;
    void Abandon() noexcept;
    [[nodiscard]] std::int64_t Live() const noexcept { return fLive; }

private:
    struct TChunk {
        TChunk* Next;
    };
    static constexpr std::size_t FirstChunkBlocks = 64;
    static constexpr std::size_t LargestChunk = 1 << 20;

    explicit TKdsSlab(std::size_t blockSize) noexcept : fBlockSize(blockSize) {}
    ~TKdsSlab() = default;
    void AddChunk();
    [[nodiscard]] void* TakeBlock() noexcept;
    void DropChunks() noexcept;

    std::size_t fBlockSize;
    std::size_t fChunkSize = 0;
    TChunk* fChunks = nullptr;
    std::byte* fCut = nullptr;  // of the newest chunk: what has not been handed out yet
    std::byte* fEnd = nullptr;
    void* fFreed = nullptr;  // chain through the freed blocks' first word
    std::int64_t fLive = 0;
    bool fAbandoned = false;
};

}  // namespace kds
