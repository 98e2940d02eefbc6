#include "check_libraries_inside.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>
#include <sstream>

#include "closed_functions.h"

/// What the tool exports, for a library that names it.
extern "C" {
__attribute__((visibility("default"))) uint32_t bootup_fpd_time_div = 1;
__attribute__((visibility("default"))) void *fpd_upg_handler(void * /*worker_context*/) {
    std::abort();  // the tool's alone to start
}
}

namespace cardsim {
namespace {

Stage stage_of(const std::string &text) {
    Stage stage;
    std::istringstream words(text);
    char part = 0;
    words >> part >> stage.number;
    stage.part = static_cast<Part>(part);
    for (unsigned number = 0; words >> number;) stage.skip.insert(number);
    return stage;
}

// ---- are they there

/// A name of the library that is short enough for a table.
std::string file_of(void *function) {
    Dl_info info{};
    if (dladdr(function, &info) == 0) return "";
    return std::filesystem::path(info.dli_fname).filename();
}

Outcome look_at_library(const std::string &file) {
    if (dlopen(file.c_str(), RTLD_NOW | RTLD_NOLOAD) != nullptr) return {Verdict::ok, "loaded", ""};
    dlerror();
    dlopen(file.c_str(), RTLD_LAZY);
    const char *const reason = dlerror();
    return {Verdict::fault, reason != nullptr ? reason : "not loaded with the program", "the tool does not start"};
}

Outcome look_for(const char *name) {
    void *const function = dlsym(RTLD_DEFAULT, name);
    if (function == nullptr) return {Verdict::fault, "not there", "the tool does not start"};
    return {Verdict::ok, "in " + file_of(function), ""};
}

void look_for_all(Reporter &reporter, const LibraryCheck &check) {
    for (const std::string &file : check.libraries) {
        reporter.call({.call = "(load)", .arguments = file}, [&](Records &) { return look_at_library(file); });
    }
    for (const char *name : closed_functions) {
        reporter.call({.call = name, .arguments = "symbol"}, [&](Records &) { return look_for(name); });
    }
}

// ---- the stages

void make_run(Reporter &reporter, const LibraryCheck &check) {
    Card card;
    look_at_card(check, reporter, card, true);
    for (const FpdObject &fpd : card.fpds) {
        for (const Region &region : fpd.regions) {
            auto description = std::make_unique<FpdDesc>();
            if (region.has_info) look_at_image(reporter, card, region, *description);
            reporter.send({.kind = Kind::region, .begun = {}, .outcome = {}, .text = region.name});
        }
    }
    use_settings(reporter, card);
    use_shell(reporter);
}

void make_one_call(Reporter &reporter, const LibraryCheck &check, const Stage &stage) {
    Card card;
    reporter.be_quiet();
    look_at_card(check, reporter, card, stage.part != Part::refusal);
    reporter.speak();
    bool made = true;
    if (stage.part == Part::refusal) {
        made = make_wrong_call(reporter, card, stage.number);
    } else if (stage.part == Part::bad_upgrade) {
        made = make_wrong_upgrade(reporter, card, check.upgrade, stage.number);
    } else {
        upgrade_region(reporter, card, check.upgrade);
    }
    if (!made) reporter.send({.kind = Kind::nothing, .begun = {}, .outcome = {}, .text = {}});
}

}  // namespace

std::string text_of(const Stage &stage) {
    std::string text = {static_cast<char>(stage.part)};
    text += " " + std::to_string(stage.number);
    for (const unsigned number : stage.skip) text += " " + std::to_string(number);
    return text;
}

bool Reporter::call(Begun begun, const Judge &make_and_judge) {
    begun.number = ++count_;
    if (skip_.contains(begun.number)) return false;
    if (!quiet_) send({.kind = Kind::begun, .begun = begun, .outcome = {}, .text = {}});
    Records records;
    Outcome outcome = make_and_judge(records);
    const std::string damage = records.damage();
    if (!damage.empty()) {
        const std::string result = outcome.result.empty() ? damage : damage + ", " + outcome.result;
        outcome = {Verdict::fault, result, "whatever the tool has there is lost"};
    }
    send({.kind = quiet_ ? Kind::alive : Kind::ended, .begun = {}, .outcome = outcome, .text = {}});
    return damage.empty();
}

void Reporter::send(const Message &message) const {
    const std::string line = line_of(message);
    if (write(report_descriptor, line.data(), line.size()) != static_cast<ssize_t>(line.size())) _exit(1);
}

int run_inside(const LibraryCheck &check) {
    // What the libraries run is not to be given them too.
    unsetenv("LD_PRELOAD");
    unsetenv("LD_BIND_NOW");
    fcntl(report_descriptor, F_SETFD, FD_CLOEXEC);
    watch_records(report_descriptor);
    const Stage stage = stage_of(check.inside);
    Reporter reporter(stage.skip);
    switch (stage.part) {
        case Part::load:
            look_for_all(reporter, check);
            break;
        case Part::run:
            make_run(reporter, check);
            reporter.send({.kind = Kind::begun,
                           .begun = {.number = 0, .call = "(end)", .arguments = "of the process"},
                           .outcome = {},
                           .text = {}});
            return 0;  // by way of the libraries' own ends
        case Part::refusal:
        case Part::bad_upgrade:
        case Part::upgrade:
            make_one_call(reporter, check, stage);
            break;
    }
    _exit(0);
}

}  // namespace cardsim
