// Reference-counted interfaces: one intrusive base, one smart pointer.
//
// Ownership  An object starts with the count 0; each TIntf holds one reference; the last one that
//            lets go deletes it. Capability queries use dynamic_cast and do not count.
// Threads    The count is atomic, because sort workers may copy values that hold interfaces.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

namespace kds {

class IInterface {
public:
    IInterface(const IInterface&) = delete;
    IInterface& operator=(const IInterface&) = delete;
    void Retain() const noexcept { fReferences.fetch_add(1, std::memory_order_relaxed); }
    void Release() const noexcept {
        if (fReferences.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }
    [[nodiscard]] std::int32_t References() const noexcept {
        return fReferences.load(std::memory_order_relaxed);
    }

protected:
    IInterface() = default;
    virtual ~IInterface() = default;

private:
    mutable std::atomic<std::int32_t> fReferences{0};
};

template <typename T>
class TIntf {
public:
    TIntf() = default;
    TIntf(std::nullptr_t) noexcept {}
    explicit TIntf(T* object) noexcept : fObject(object) {
        if (fObject != nullptr) fObject->Retain();
    }
    TIntf(const TIntf& other) noexcept : TIntf(other.fObject) {}
    TIntf(TIntf&& other) noexcept : fObject(std::exchange(other.fObject, nullptr)) {}
    template <typename U>
        requires std::is_convertible_v<U*, T*>
    TIntf(const TIntf<U>& other) noexcept : TIntf(other.Get()) {}
    // By value: the old reference is dropped last, after the new one is held.
    TIntf& operator=(TIntf other) noexcept {
        std::swap(fObject, other.fObject);
        return *this;
    }
    ~TIntf() {
        if (fObject != nullptr) fObject->Release();
    }

    [[nodiscard]] T* Get() const noexcept { return fObject; }
    T* operator->() const noexcept { return fObject; }
    T& operator*() const noexcept { return *fObject; }
    [[nodiscard]] explicit operator bool() const noexcept { return fObject != nullptr; }
    friend bool operator==(const TIntf&, const TIntf&) = default;

private:
    T* fObject = nullptr;
};

template <typename T, typename... A>
[[nodiscard]] TIntf<T> MakeIntf(A&&... arguments) {
    return TIntf<T>(new T(std::forward<A>(arguments)...));
}

}  // namespace kds
