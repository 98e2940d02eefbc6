/// What a process with the libraries tells the one that watches it: a line a message, over a pipe.
#ifndef CARDSIM_CHECK_LIBRARIES_REPORT_H
#define CARDSIM_CHECK_LIBRARIES_REPORT_H

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace cardsim {

/// `fault`: the tool cannot do its work. `note`: it can, and this is what it makes of it.
enum class Verdict : char { ok = 'o', note = 'n', fault = 'f' };

struct Outcome {
    Verdict verdict = Verdict::ok;
    std::string result;
    std::string remark;
};

/// A row of the table.
struct Row {
    std::string call;
    std::string arguments;
    Outcome outcome;
};

/// A call that is being made.
struct Begun {
    unsigned number = 0;  ///< of the call in its process, from 1
    std::string call;
    std::string arguments;
    Verdict when_it_dies = Verdict::fault;  ///< also: does not come back
    bool may_abort = false;                 ///< it is a wrong call: to abort is one way to refuse it
};

enum class Kind : char {
    begun = 'B',    ///< `begun`
    ended = 'E',    ///< `outcome` of the call that began last
    limit = 'L',    ///< `text`: ms that the call may take from now on
    damage = 'D',   ///< `text`: what ended the process, which is about to end
    region = 'R',   ///< `text`: name of a region of the card
    nothing = 'N',  ///< there is nothing of that number to do
    alive = 'A',    ///< a call came back that is not reported
};

struct Message {
    Kind kind{};
    Begun begun;
    Outcome outcome;
    std::string text;
};

std::string line_of(const Message &message);
/// Nothing when the line is none of ours.
std::optional<Message> message_of(const std::string &line);

/// The rows in columns.
std::string table_of(const std::vector<Row> &rows);

}  // namespace cardsim

#endif
