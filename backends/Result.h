// backend::Result: what a back-end's step answers when it returns what it makes: the
// value, or an empty value and a one-line reason. The reason travels up to the call that
// answers the library, which logs it once; nothing below logs.
#pragma once

#include <string>
#include <utility>

namespace backend {

// cause is the errno of a system call that failed on the way (EMFILE, ENOMEM, EIO...), 0
// when the input itself is at fault.
template <class T> struct Result {
    T value{};
    std::string error;
    int cause = 0;

    explicit operator bool() const { return error.empty(); }
    static Result ok(T v) { return Result{std::move(v), {}, 0}; }
    static Result fail(std::string why, int cause = 0) {
        Result r;
        r.error = why.empty() ? std::string("unknown error") : std::move(why);
        r.cause = cause;
        return r;
    }
};

} // namespace backend
