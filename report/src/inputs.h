/// Which files the command line names, and to which card and log each belongs.
#ifndef FPD_REPORT_INPUTS_H
#define FPD_REPORT_INPUTS_H

#include <string>
#include <vector>

namespace fpd_report {

/// One log: a file, or a rotated set in the order of its lines.
struct Log {
    std::string name;
    std::vector<std::string> files;
};

struct Card {
    std::string name;  // an entry of the directory; for a log that was named itself, the log's name
    std::vector<Log> logs;
};

struct Inputs {
    std::vector<Card> cards;
    bool has_directory = false;
    std::vector<std::string> errors;  // "PATH: reason"
};

/// "-" is standard input. Files of a rotated set that are all named belong together. In a directory each subdirectory
/// is a card, with the files named *.log below it, rotated ones included, and each file is one. Hidden entries, what is
/// neither a file nor a directory, and the file `output` are passed over there. A path that comes again is read once.
Inputs find_inputs(const std::vector<std::string> &arguments, const std::string &output);

}  // namespace fpd_report

#endif
