/// Turns the text of diagnostic logs into runs.
///
/// Push text of any size, in pieces cut anywhere; each run is handed over when the next begins or the text ends. A line
/// that is cut off is kept as unknown and counted. Memory is bounded by RunLimits, whatever the text. Not safe for use
/// by two threads at once; readers of their own are independent.
#ifndef FPD_LOG_RUN_READER_H
#define FPD_LOG_RUN_READER_H

#include <functional>
#include <memory>
#include <string_view>

#include "run.h"

namespace fpd_log {

class RunReader {
  public:
    using TakeRun = std::function<void(Run &&)>;

    explicit RunReader(TakeRun take, RunLimits limits = {});
    ~RunReader();
    RunReader(const RunReader &) = delete;
    RunReader &operator=(const RunReader &) = delete;

    /// What follows is of another source (another card, say): what is open is handed over first.
    void begin_source(std::string_view name);
    /// The next text of the source, rotated files oldest first.
    void push(std::string_view text);
    /// The text ends: hands over what is open. The reader can begin another source afterwards.
    void finish();
    /// The run that is being read, as far as the text told it (outcomes "unfinished" where not decided); null: none
    /// yet. For whoever follows a log that grows. Valid until the next push.
    const Run *open_run() const;

  private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace fpd_log

#endif
