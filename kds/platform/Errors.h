// The exception classes of the whole library.
//
// Shape      Exception carries a 16-bit message; what() gives the same text in UTF-8. Below it
//            stand the classes that the containers, the decimal and the conversions raise, and
//            EKdsError, the only one that the store itself raises.
// Errors     Copying an exception never throws: message and UTF-8 text are shared and immutable.
#pragma once

#include <exception>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "kds/platform/Format.h"

namespace kds {

class Exception : public std::exception {
public:
    explicit Exception(std::u16string_view message);
    [[nodiscard]] std::u16string_view Message() const noexcept;
    [[nodiscard]] const char* what() const noexcept override;

private:
    struct TText;
    std::shared_ptr<const TText> fText;
};

class EKdsError : public Exception {
public:
    using Exception::Exception;
};
class EListError : public Exception {
public:
    using Exception::Exception;
};
class EConvertError : public Exception {
public:
    using Exception::Exception;
};
class EVariantError : public Exception {
public:
    using Exception::Exception;
};
class EStreamError : public Exception {
public:
    using Exception::Exception;
};
class EInvalidArgument : public Exception {
public:
    using Exception::Exception;
};
class EMathError : public Exception {
public:
    using Exception::Exception;
};
class EZeroDivide : public EMathError {
public:
    using EMathError::EMathError;
};
class EIntError : public Exception {
public:
    using Exception::Exception;
};
class EIntOverflow : public EIntError {
public:
    using EIntError::EIntError;
};
class EDivByZero : public EIntError {
public:
    using EIntError::EIntError;
};

// "List index out of bounds (%d)": the one error of every positional container and list.
[[noreturn]] void ListIndexError(long long index);
// "List does not allow duplicates (0x%s)", with the item's address in hexadecimal: the one error
// of every container that refuses an item which it has already.
[[noreturn]] void ListDuplicateError(const void* item);

// The first error of several steps that all must run: each is caught here, the first one is
// raised again at the end.
class TFirstError {
public:
    template <typename F>
    void Run(F&& step) {
        try {
            std::forward<F>(step)();
        } catch (...) {
            Keep(std::current_exception());
        }
    }
    void Keep(std::exception_ptr error) noexcept {
        if (!fError) fError = std::move(error);
    }
    [[nodiscard]] bool Any() const noexcept { return fError != nullptr; }
    void Rethrow() {
        if (fError) std::rethrow_exception(std::exchange(fError, nullptr));
    }

private:
    std::exception_ptr fError;
};

}  // namespace kds
