/// Everything that a simulated card records of a run, in one order.
#ifndef ORDER_TRACE_H
#define ORDER_TRACE_H

#include <filesystem>
#include <string>
#include <vector>

namespace card_tests {

/// A line of the diagnostic log, a call of a closed library, a call of a script, or a line of the event log.
struct Step {
    std::string thread;  ///< "main thread", "mount thread", "worker 2 of IoFpga": its second attempt
    std::string tag;     ///< of a line of the diagnostic log
    std::string text;    ///< without what differs from run to run: times, ids, numbers of source lines, addresses
};

/// All of them write whole lines at the end of their files, so `file` may be the one file behind all their names.
/// Throws std::runtime_error for what is none of them.
std::vector<Step> read_trace(const std::filesystem::path &file);

/// The same steps with those of the main thread in the order that is promised: reports of workers that run side by side
/// are handled as they arrive, and the periodic progress event with its punch comes when it is due. Of the latter the
/// first is left. Throws std::runtime_error when one of them is not whole, or comes amidst other things.
std::vector<Step> promised_order(const std::vector<Step> &trace);

/// The threads with their steps, as tests/order/ has them.
std::string threads_text(const std::vector<Step> &trace);

/// What one thread did before another could: "B came before A" for every pair that came in another order.
std::vector<std::string> broken_causes(const std::vector<Step> &trace);

}  // namespace card_tests

#endif
