// Counted 8-bit string, one pointer wide: what memo slots and the string pool hold.
//
// Shape      nullptr is the empty text; otherwise one block: count, size, characters, a zero.
// Ownership  Copies share the block and count it; the last one frees it.
// Errors     std::bad_alloc from the constructors that copy characters.
// Validity   Characters live as long as any copy. Detach and Attach move the reference through a
//            record slot that holds the bare pointer.
// Threads    The count is not atomic: strings of one store stay with its thread.
#pragma once

#include <cstdint>
#include <string_view>
#include <utility>

namespace kds {

class TAnsiString {
public:
    TAnsiString() = default;
    explicit TAnsiString(std::string_view text);
    TAnsiString(const TAnsiString& other) noexcept : fBlock(other.fBlock) { Retain(fBlock); }
    TAnsiString(TAnsiString&& other) noexcept : fBlock(std::exchange(other.fBlock, nullptr)) {}
    TAnsiString& operator=(TAnsiString other) noexcept {
        std::swap(fBlock, other.fBlock);
        return *this;
    }
    ~TAnsiString() { Release(fBlock); }

    [[nodiscard]] std::string_view View() const noexcept { return View(fBlock); }
    [[nodiscard]] std::int32_t Size() const noexcept {
        return static_cast<std::int32_t>(View().size());
    }
    [[nodiscard]] bool Empty() const noexcept { return fBlock == nullptr; }
    // How many strings and slots share the text; 0 for the empty one.
    [[nodiscard]] std::int32_t RefCount() const noexcept { return RefCount(fBlock); }
    // Whether both are the very same block, not only equal text.
    [[nodiscard]] bool SameInstance(const TAnsiString& other) const noexcept {
        return fBlock == other.fBlock;
    }
    friend bool operator==(const TAnsiString& a, const TAnsiString& b) noexcept {
        return a.View() == b.View();
    }

    // The bare handle of a record slot: Detach gives the reference away, Attach takes it back.
    [[nodiscard]] void* Detach() noexcept { return std::exchange(fBlock, nullptr); }
    [[nodiscard]] static TAnsiString Attach(void* handle) noexcept {
        TAnsiString text;
        text.fBlock = static_cast<TBlock*>(handle);
        return text;
    }
    [[nodiscard]] static std::string_view View(const void* handle) noexcept {
        if (handle == nullptr) return {"", 0};
        const auto* block = static_cast<const TBlock*>(handle);
        return {reinterpret_cast<const char*>(block + 1), block->Size};
    }
    [[nodiscard]] static std::int32_t RefCount(const void* handle) noexcept {
        return handle == nullptr ? 0 : static_cast<const TBlock*>(handle)->References;
    }
    static void Retain(void* handle) noexcept {
        if (handle != nullptr) ++static_cast<TBlock*>(handle)->References;
    }
    static void Release(void* handle) noexcept {
        if (handle != nullptr && --static_cast<TBlock*>(handle)->References == 0) Free(handle);
    }

private:
    static void Free(void* handle) noexcept;

    struct TBlock {
        std::int32_t References;
        std::uint32_t Size;
    };
    TBlock* fBlock = nullptr;
};

}  // namespace kds
