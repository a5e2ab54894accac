#pragma once

#include <database/SqliteQuery.h>

#include <cstdint>
#include <string>

namespace Marivane::Database {

// Binds whichever alternative a PropertyValue holds to one named parameter:
// both integer widths as integers, double as a real, text as text. Text is
// bound without a copy: the visited value must stay alive until the statement
// has been stepped.
class BindParameterVisitor {
public:
    BindParameterVisitor(SqliteQuery& query, std::string name) : query_(query), name_(std::move(name)) {}

    void operator()(int32_t value) const { query_.bindParameter(name_, value); }
    void operator()(int64_t value) const { query_.bindParameter(name_, value); }
    void operator()(double value) const { query_.bindParameter(name_, value); }
    void operator()(const std::string& value) const { query_.bindParameter(name_, value, BindMode::NoCopy); }

private:
    SqliteQuery& query_;
    std::string name_;
};

}  // namespace Marivane::Database
