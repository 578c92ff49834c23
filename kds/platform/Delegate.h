// A callback bound to an object: object and routine, two words.
//
// Shape      Trivially copyable; equal when both words are equal; empty by default.
// Ownership  Never owns the object; whoever binds one unbinds it before the object goes.
// Cost       One indirect call. Copy a delegate before calling it when the call may replace it.
#pragma once

#include <cassert>
#include <cstddef>
#include <type_traits>
#include <utility>

namespace kds {

template <typename>
class TDelegate;

template <typename R, typename... A>
class TDelegate<R(A...)> {
public:
    TDelegate() = default;
    TDelegate(std::nullptr_t) noexcept {}

    // A member function of an object: TComparator::Bind<&TOrder::Compare>(&order).
    template <auto Method, typename T>
    [[nodiscard]] static TDelegate Bind(T* object) noexcept {
        using TPlain = std::remove_const_t<T>;
        return TDelegate(const_cast<TPlain*>(object), [](void* target, A... arguments) -> R {
            return (static_cast<T*>(target)->*Method)(std::forward<A>(arguments)...);
        });
    }
    // A free function, or one that takes a context of the host's as its first argument.
    template <R (*Function)(A...)>
    [[nodiscard]] static TDelegate Bind() noexcept {
        return TDelegate(nullptr, [](void*, A... arguments) -> R {
            return Function(std::forward<A>(arguments)...);
        });
    }
    // Any callable that the caller keeps alive, a lambda in a local variable for instance.
    template <typename F>
    [[nodiscard]] static TDelegate BindCall(F* callable) noexcept {
        return TDelegate(const_cast<void*>(static_cast<const void*>(callable)),
                         [](void* target, A... arguments) -> R {
                             return (*static_cast<F*>(target))(std::forward<A>(arguments)...);
                         });
    }

    [[nodiscard]] explicit operator bool() const noexcept { return fRoutine != nullptr; }
    R operator()(A... arguments) const {
        assert(fRoutine != nullptr);
        return fRoutine(fObject, std::forward<A>(arguments)...);
    }
    friend bool operator==(const TDelegate&, const TDelegate&) = default;

private:
    using TRoutine = R (*)(void*, A...);
    TDelegate(void* object, TRoutine routine) noexcept : fObject(object), fRoutine(routine) {}

    void* fObject = nullptr;
    TRoutine fRoutine = nullptr;
};

}  // namespace kds
