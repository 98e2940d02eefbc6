/// The report's page, its style and script inside, before and after the document that it draws.
#ifndef FPD_REPORT_PAGE_PARTS_H
#define FPD_REPORT_PAGE_PARTS_H

#include <string_view>

namespace fpd_report {

extern const std::string_view page_before_document;
extern const std::string_view page_after_document;

}  // namespace fpd_report

#endif
