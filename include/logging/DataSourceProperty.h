#pragma once

#include <logging/PropertyValue.h>

#include <cstdint>
#include <string>

namespace Marivane::Logging {

// A key/value pair attached to one data source. Keys need not be unique.
struct DataSourceProperty {
    int8_t dataSourceId = -1;
    std::string propertyName;
    PropertyValue value;
};

}  // namespace Marivane::Logging
