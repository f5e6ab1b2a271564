// Zn::Exception: the host's exceptions for programming errors (a call that breaks a
// class's contract), never for ordinary failures, which are reported by return values.
// Each carries a type name, a message, the source place that threw it and the call stack
// at the moment it was made, so that the report of an uncaught one says where it came from.
#pragma once

#include "host/core/LightweightString.h"

#include <exception>
#include <vector>

namespace Zn::Exception {

class Base : public std::exception {
public:
    // Captures the calling thread's stack.
    Base(const char* typeName, const String& message, const char* file, int line);

    const char* what() const noexcept override { return message_.c_str(); }
    const String& typeName() const noexcept { return typeName_; }
    const String& message() const noexcept { return message_; }
    const String& file() const noexcept { return file_; }
    int line() const noexcept { return line_; }
    // One line per frame, innermost first, as the diagnostics service prints them.
    const std::vector<String>& callStack() const noexcept { return stack_; }

private:
    String typeName_;
    String message_;
    String file_;
    int line_;
    std::vector<String> stack_;
};

class RuntimeError : public Base {
public:
    RuntimeError(const String& message, const char* file, int line) : Base("RuntimeError", message, file, line) {}
};

} // namespace Zn::Exception
