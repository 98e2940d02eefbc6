/// One run of the tool as the model sees it.
#ifndef MODEL_RUN_H
#define MODEL_RUN_H

#include <array>
#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "model.h"

namespace properties {

/// What a region holds between two runs.
struct Firmware {
    Version running;
    Version programmed;
    std::optional<Version> falls_back;
    unsigned attempts = 0;
};

/// The card between its lives.
struct World {
    std::vector<Firmware> regions;  ///< in the card's order
    std::vector<std::pair<unsigned, unsigned>> leds;
    int auto_upgrade = 0;
    int mode = 0;
    std::optional<std::string> marker;
    unsigned boot = 1;
    bool reset_requested = false;
};

/// The version as the tool shows it.
std::string shown(const Version &version);

/// What an image of that version leaves in a region.
Version plain(const Version &version);

std::string mode_name(int mode);

/// Filled up with blanks on the right.
std::string padded(std::string text, std::size_t width);

/// The run ends before it did what it was asked for.
struct Ended {
    int status;
    std::string err;
};

struct Record {
    std::size_t region = 0;  ///< its place among all regions of the card
    const Fpd *fpd = nullptr;
    const Region *described = nullptr;
    const Image *image = nullptr;
    std::string name;
    unsigned state = 4;
    unsigned seq = 0;
    Record *dependency = nullptr;
    Version running;
    Version programmed;
};

enum State : unsigned {
    capability_received = 4,
    info_failed = 5,
    info_received = 6,
    description_failed = 7,
    described = 8,
    refused = 9,
    dependency_failed = 10,
    available = 11,
    required = 12,
    not_needed = 13,
    queued = 14,
    worker_created = 15,
    started = 16,
    progressing = 17,
    failed = 18,
    done = 19,
};

/// Runs the card's command on what the last run left, and adds what comes of it to the prediction.
class Run {
  public:
    Run(const Card &card, World &world, Prediction &out) : card_(card), world_(world), out_(out) {}

    int command() {
        try {
            return obey();
        } catch (const Ended &end) {
            err(end.err);
            happened("runs that end early");
            return end.status & 255;
        }
    }
    /// Of the plan, as far as it came.
    const std::string &marker() const { return marker_; }

  private:
    // Saying what happens.
    void happened(const std::string &what, std::uint64_t count = 1) { out_.happenings[what] += count; }
    void say(const std::string &about, const std::string &line) { out_.facts[about].push_back(line); }
    void out(const std::string &text) { append("stdout", text); }
    void err(const std::string &text) { append("stderr", text); }
    void append(const std::string &about, const std::string &text) {
        std::vector<std::string> &lines = out_.facts[about];
        if (lines.empty()) lines.emplace_back();
        lines.front() += text;
    }
    void decide(const std::string &tag) {
        say("decisions", tag);
        happened("decision " + tag);
    }
    void nameless(unsigned from, unsigned to) { say("transitions ", std::to_string(from) + ">" + std::to_string(to)); }
    void become(Record &record, unsigned state) {
        say("transitions " + record.name, std::to_string(record.state) + ">" + std::to_string(state));
        record.state = state;
    }

    /// The code with which this call fails, when it does. Counts the call.
    std::optional<int> fault(const std::string &call) {
        const unsigned nth = ++calls_[call];
        for (std::size_t index = 0; index < card_.faults.size(); ++index) {
            const CallFault &fault = card_.faults[index];
            if (fault.call != call || fault.nth.value_or(nth) != nth || fault.boot.value_or(world_.boot) != world_.boot)
                continue;
            if (in_parallel_ && fault.nth) out_.undecided_faults.insert(index);
            happened("failing calls");
            return static_cast<int>(fault.code);
        }
        return std::nullopt;
    }
    std::string reason(const std::string &call) const {
        CallFault fault;
        fault.call = call;
        return fault_text(fault);
    }

    // The commands.
    int obey();
    int get_mode();
    int set_mode(int mode);
    int set_config(int value);
    int on_the_card();

    // Planning.
    void start_context();
    std::optional<std::size_t> status_led();
    void plan();
    void plan_manufacturing();
    void build(unsigned stage);
    void load(unsigned stage);
    void load_region(unsigned stage, const Fpd &fpd, std::size_t index, std::size_t place);
    bool is_skipped(unsigned stage, unsigned capabilities);
    bool read_info(Record &record);
    void evaluate(Record &record, unsigned type);
    void construct(unsigned stage);
    bool first_pass(unsigned stage, Record &record);
    bool resolve(Record &record, bool &waits);
    void refuse_circles();
    bool may_be_upgraded(unsigned stage, Record &record, const std::string &tag);
    void put_into_queue(Record &record, unsigned from_state, const std::string &tag);
    void add_to_marker(const Record &record);
    void clean();
    Record *find(const std::string &name);

    // Upgrading.
    void upgrade();
    bool is_marked() const;
    void led_on();
    void led_off();
    bool shell_works(unsigned nth);
    void event(const std::string &about, const std::string &kind, const std::string &text, unsigned nth = 0);
    void flash(const Record &record, const std::string &text);
    void run_queue(std::vector<Record *> &queue, bool is_first);
    void upgrade_fpd(Record &record, bool is_first_call);
    enum class Attempt { Good, Bad, Silent };
    Attempt attempt(Record &record, const Trouble *&trouble);
    unsigned reports_to(const Record &record, int end);
    void program(const Record &record, bool sticks);
    void finish(Record &record);
    void give_up_on_silence(Record &record, const Trouble &trouble);
    void activate();

    const Card &card_;
    World &world_;
    Prediction &out_;
    std::map<std::string, unsigned> calls_;
    bool in_parallel_ = false;
    std::list<Record> records_;      ///< owns them
    std::list<Record *> unplanned_;  ///< the queue of all FPDs
    std::array<std::vector<Record *>, 16> queues_;
    unsigned planned_ = 0;
    std::string marker_;  ///< of the plan
    std::size_t marker_capacity_ = 0;
    std::optional<std::size_t> led_;  ///< place of the status LED among the card's
    std::pair<unsigned, unsigned> saved_look_;
    bool led_is_on_ = false;
};

}  // namespace properties

#endif
