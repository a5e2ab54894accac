#include "model/Outcome.h"

#include <gtest/gtest.h>

using Marivane::Logging::FailureKind;
using Marivane::Logging::Outcome;

namespace {

TEST(Outcome, SuccessHasNoKindAndNoMessage) {
    const Outcome outcome = Outcome::success();
    EXPECT_TRUE(outcome.ok());
    EXPECT_TRUE(static_cast<bool>(outcome));
    EXPECT_EQ(outcome.kind(), FailureKind::None);
    EXPECT_EQ(outcome.message(), "");
}

TEST(Outcome, AFailureKeepsItsKindAndMessage) {
    const Outcome outcome = Outcome::failure(FailureKind::Full, "Filesystem full.");
    EXPECT_FALSE(outcome.ok());
    EXPECT_FALSE(static_cast<bool>(outcome));
    EXPECT_EQ(outcome.kind(), FailureKind::Full);
    EXPECT_EQ(outcome.message(), "Filesystem full.");
}

TEST(Outcome, AFailureWithoutAKindIsOther) {
    const Outcome outcome = Outcome::failure(FailureKind::None, "something");
    EXPECT_FALSE(outcome.ok());
    EXPECT_EQ(outcome.kind(), FailureKind::Other);
}

}  // namespace
