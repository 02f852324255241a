// page/page.html with its style and its script, put into the program by the build.
#pragma once

#include <string_view>

namespace heapscope::report {

extern const std::string_view kPageTemplate;

}  // namespace heapscope::report
