// Root of everything that announces its own end, and the pointer that owns such an object.
//
// Ownership  Raw pointers never own. TOwned<T> holds an object that nobody else knows yet.
// Errors     Free may raise what BeforeDestruction raises; then nothing was released.
// Validity   After Free has returned the pointer is dead, unless the class says otherwise.
#pragma once

#include <memory>
#include <utility>

namespace kds {

class TObject {
public:
    TObject(const TObject&) = delete;
    TObject& operator=(const TObject&) = delete;

    // Ends the object: BeforeDestruction while every field is still whole, then Teardown (most
    // derived class first, cannot fail), then the memory. When BeforeDestruction raises, nothing
    // was released and the exception reaches the caller.
    void Free() {
        BeforeDestruction();
        Teardown();
        Dispose();
    }
    // The forced form, for owners that cannot keep the object: a refusal is not heard.
    void FreeForced() noexcept;

    virtual void BeforeDestruction() {}

protected:
    TObject() = default;
    // Items keep their destructors protected: `delete item` anywhere else does not compile.
    // Containers are plain values and make theirs public.
    virtual ~TObject() = default;
    virtual void Teardown() noexcept {}
    // Gives the memory back. Items put it off while a notification is travelling.
    virtual void Dispose() noexcept { delete this; }
};

struct TFreeDeleter {
    void operator()(TObject* object) const noexcept { object->FreeForced(); }
};

template <typename T>
using TOwned = std::unique_ptr<T, TFreeDeleter>;

template <typename T, typename... A>
[[nodiscard]] TOwned<T> MakeOwned(A&&... arguments) {
    return TOwned<T>(new T(std::forward<A>(arguments)...));
}

// Runs a routine when the scope is left, also by an exception. The routine must not raise.
template <typename F>
class TScopeGuard {
public:
    explicit TScopeGuard(F routine) noexcept : fRoutine(std::move(routine)) {}
    TScopeGuard(const TScopeGuard&) = delete;
    TScopeGuard& operator=(const TScopeGuard&) = delete;
    ~TScopeGuard() {
        if (fArmed) fRoutine();
    }
    void Dismiss() noexcept { fArmed = false; }

private:
    F fRoutine;
    bool fArmed = true;
};

}  // namespace kds
