#include <database/DatabaseAccessError.h>
#include <database/DatabaseBusy.h>
#include <database/FileIsNotDatabase.h>
#include <database/UnfinishedCommit.h>

namespace Marivane::Database {

DatabaseAccessError::DatabaseAccessError(const std::string& message) : std::runtime_error(message) {}

FileIsNotDatabase::FileIsNotDatabase(const std::string& message) : DatabaseAccessError(message) {}

DatabaseBusy::DatabaseBusy(const std::string& message) : DatabaseAccessError(message) {}

UnfinishedCommit::UnfinishedCommit(const std::string& message) : DatabaseAccessError(message) {}

}  // namespace Marivane::Database
