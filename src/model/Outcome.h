#pragma once

#include <logging/FailureKind.h>

#include <string>
#include <utility>

namespace Marivane::Logging {

// What one operation inside the library came to: success, or the kind of
// failure and its message. The library's own components pass it on and
// decide by its kind; each public interface turns it into its own form in
// one place (a result and getLastError for the classes, an error object for
// C, an exception class for Python).
class [[nodiscard]] Outcome {
public:
    Outcome() = default;

    static Outcome success() { return Outcome(); }
    // A failure is never of kind None: one without a kind of its own is Other.
    static Outcome failure(FailureKind kind, std::string message) {
        return Outcome(kind == FailureKind::None ? FailureKind::Other : kind, std::move(message));
    }

    bool ok() const { return kind_ == FailureKind::None; }
    explicit operator bool() const { return ok(); }
    FailureKind kind() const { return kind_; }
    // Empty on success.
    const std::string& message() const { return message_; }

private:
    Outcome(FailureKind kind, std::string message) : kind_(kind), message_(std::move(message)) {}

    FailureKind kind_ = FailureKind::None;
    std::string message_;
};

}  // namespace Marivane::Logging
