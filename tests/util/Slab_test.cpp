#include "kds/util/Slab.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <new>
#include <vector>

#include "kds/platform/Pages.h"

namespace kds {
namespace {

TEST(TSlabTest, HandsOutBlocksOnceAndUsesFreedOnesAgain) {
    TSlab* const slab = TSlab::Create(20);
    std::vector<void*> blocks;
    for (int i = 0; i < 200; ++i) {
        blocks.push_back(slab->Allocate());
        std::memset(blocks.back(), i, 20);
    }
    // Each lies apart from the others and holds what was written.
    for (int i = 0; i < 200; ++i) {
        const auto* const bytes =
            static_cast<const unsigned char*>(blocks[static_cast<std::size_t>(i)]);
        EXPECT_EQ(std::count(bytes, bytes + 20, i), 20);
    }
    slab->Free(blocks[7]);
    slab->Free(blocks[9]);
    EXPECT_EQ(slab->Allocate(), blocks[9]);
    EXPECT_EQ(slab->Allocate(), blocks[7]);
    EXPECT_EQ(slab->Live(), 200);

    slab->Abandon();  // lives on until its last block is back
    for (void* const block : blocks) slab->Free(block);
}

// Keeps account of what is mapped, and refuses when told to.
class TStrictPages final : public IPages {
public:
    TStrictPages() : fSystem(Pages()) { SetPages(this); }
    ~TStrictPages() override { SetPages(nullptr); }
    void* Map(std::size_t size) override {
        if (Refuses) throw std::bad_alloc();
        void* const block = fSystem.Map(size);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % LargePage, 0u);
        EXPECT_EQ(size % LargePage, 0u);
        Mapped[block] = size;
        return block;
    }
    void Unmap(void* block, std::size_t size) noexcept override {
        EXPECT_EQ(Mapped[block], size);
        Mapped.erase(block);
        fSystem.Unmap(block, size);
    }
    std::map<void*, std::size_t> Mapped;
    bool Refuses = false;

private:
    IPages& fSystem;
};

TEST(TSlabTest, TakesLargePagesWhenThereAreManyBlocksAndGivesThemBack) {
    TStrictPages pages;
    TSlab* const slab = TSlab::Create(100, 64);
    std::vector<std::byte*> blocks;
    const auto take = [&] {
        blocks.push_back(static_cast<std::byte*>(slab->Allocate()));
        ASSERT_EQ(reinterpret_cast<std::uintptr_t>(blocks.back()) % 64, 0u);
        std::memset(blocks.back(), static_cast<int>(blocks.size()), 128);
    };
    pages.Refuses = true;
    EXPECT_THROW(while (true) take(), std::bad_alloc);
    EXPECT_GT(blocks.size(), 8u << 10);  // the heap had some
    pages.Refuses = false;
    while (blocks.size() < 150'000) take();
    EXPECT_GE(pages.Mapped.size(), 2u);
    EXPECT_LE(pages.Mapped.size(), 8u);

    for (std::size_t i = 0; i < blocks.size(); ++i) {
        ASSERT_EQ(blocks[i][127], static_cast<std::byte>(i + 1)) << i;
        slab->Free(blocks[i]);
    }
    EXPECT_TRUE(pages.Mapped.empty());
    EXPECT_EQ(slab->Live(), 0);
    slab->Abandon();
}

}  // namespace
}  // namespace kds
