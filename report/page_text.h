// The page without its data, which belongs between these two texts. Made of the files in
// report/page when the build is configured.
#ifndef REPORT_PAGE_TEXT_H
#define REPORT_PAGE_TEXT_H

#include <string_view>

extern const std::string_view page_before_data;
extern const std::string_view page_after_data;

#endif
