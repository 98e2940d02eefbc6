/// Where the report goes: standard output, or a file that appears when it is whole.
#ifndef FPD_REPORT_OUTPUT_H
#define FPD_REPORT_OUTPUT_H

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

namespace fpd_report {

/// A file is written under a temporary, hidden name in its directory and renamed by `finish`; without that it is
/// removed. Used by one thread.
class Output {
  public:
    /// Standard output.
    Output();
    /// `path` is created, or replaced; a link is replaced, not followed. A special file such as /dev/null is written as
    /// it is. Whether it can be made `finish` tells.
    explicit Output(const std::string &path);
    ~Output();
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

    void write(std::string_view text);
    /// Empty: all is written. Otherwise "PATH: reason", and a file is as it was.
    std::string finish();

  private:
    struct Close {
        void operator()(std::FILE *file) const { std::fclose(file); }
    };
    void note_error();

    std::string path_;       // of the report; empty: standard output
    std::string temporary_;  // empty: nothing to rename
    std::unique_ptr<std::FILE, Close> file_;
    int error_ = 0;  // the first errno
};

}  // namespace fpd_report

#endif
