#pragma once

#include <database/DatabaseAccessError.h>

namespace Marivane::Database {

// A read-only connection met a commit that a writer left unfinished (it was
// killed, or its disk failed, in the middle of it). The file is not damaged:
// the first connection that may write rolls the commit back, after which
// every reader sees the last finished commit.
class MV_DATABASE_EXPORT UnfinishedCommit : public DatabaseAccessError {
public:
    explicit UnfinishedCommit(const std::string& message);
};

}  // namespace Marivane::Database
