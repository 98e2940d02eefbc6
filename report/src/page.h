/// The report as one self-contained HTML page.
#ifndef FPD_REPORT_PAGE_H
#define FPD_REPORT_PAGE_H

#include <string>

namespace fpd_report {

/// The page that draws `json`, a document of fpd-report. It needs nothing else: style and script are inside, and a
/// policy in it forbids whatever else a document might smuggle in. Any thread.
std::string html_page(const std::string &json);

}  // namespace fpd_report

#endif
