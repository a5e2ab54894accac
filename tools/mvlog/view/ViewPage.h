#pragma once

#include <string_view>

namespace Mvlog {

// The page of `mvlog view` (page.html beside this header), built into the
// binary so that nothing is fetched at run time.
extern const std::string_view kViewPage;

}  // namespace Mvlog
