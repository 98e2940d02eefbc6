/// The timeline of runs as a picture.
#ifndef FPD_REPORT_SVG_TIMELINE_H
#define FPD_REPORT_SVG_TIMELINE_H

#include <string>
#include <vector>

#include "run.h"

namespace fpd_report {

/// An SVG 1.1 document: for each run a lane per sequence queue, in it a bar per region (the first 200 of a run), and
/// the events of the card. It needs no font or file and has its own background, light or dark as the viewer prefers.
/// Any thread.
std::string svg_timeline(const std::vector<fpd_log::Run> &runs);

}  // namespace fpd_report

#endif
