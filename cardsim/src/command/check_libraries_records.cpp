#include "check_libraries_records.h"

#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "error.h"

namespace cardsim {
namespace {

constexpr unsigned char untouched = 0xa5;
constexpr std::size_t most_places = 64;

/// What a signal handler needs, which is given nothing else.
struct Watched {
    int report = -1;
    std::array<std::atomic<const Records::Place *>, most_places> places{};
};
Watched watched;

void watch(const Records::Place *place) {
    for (auto &slot : watched.places) {
        const Records::Place *free = nullptr;
        if (slot.compare_exchange_strong(free, place)) return;
    }
}

void forget(const Records::Place *place) {
    for (auto &slot : watched.places) {
        const Records::Place *mine = place;
        if (slot.compare_exchange_strong(mine, nullptr)) return;
    }
}

const Records::Place *place_of(const unsigned char *address) {
    for (const auto &slot : watched.places) {
        const Records::Place *const place = slot;
        if (place != nullptr && address >= place->pages && address < place->pages + place->size) return place;
    }
    return nullptr;
}

bool was_write([[maybe_unused]] const ucontext_t &context) {
#ifdef __x86_64__
    constexpr greg_t write_access = 2;
    return (context.uc_mcontext.gregs[REG_ERR] & write_access) != 0;
#else
    return true;
#endif
}

/// The process is in a call that has gone wrong: nothing but this line matters any more.
void tell_access(int signal_number, siginfo_t *info, void *context) {
    const auto *const address = static_cast<const unsigned char *>(info->si_addr);
    const Records::Place *const place = place_of(address);
    if (place == nullptr) {
        std::signal(signal_number, SIG_DFL);
        std::raise(signal_number);  // ends the process as soon as this handler is left
        return;
    }
    char line[256];
    const int length = std::snprintf(line, sizeof line, "D\t%s %s '%s' (%zu bytes)\t\n",
                                     was_write(*static_cast<const ucontext_t *>(context)) ? "wrote" : "read",
                                     address < place->begin ? "before" : "beyond", place->name,
                                     static_cast<std::size_t>(place->end - place->begin));
    [[maybe_unused]] const ssize_t written = write(watched.report, line, static_cast<std::size_t>(length));
    _exit(1);
}

}  // namespace

Records::~Records() {
    for (const Place &place : places_) {
        forget(&place);
        munmap(place.pages, place.size);
    }
}

void *Records::room(const char *name, std::size_t size) {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t whole = (size + page - 1) / page * page;
    void *const pages = mmap(nullptr, whole + 2 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) throw system_error("memory for a record", errno);
    auto *const first = static_cast<unsigned char *>(pages);
    if (mprotect(first + page, whole, PROT_READ | PROT_WRITE) != 0) throw system_error("memory for a record", errno);
    unsigned char *const end = first + page + whole;
    std::memset(first + page, untouched, whole - size);
    places_.reserve(most_places);  // they are watched where they lie
    places_.push_back({name, first, whole + 2 * page, end - size, end});
    watch(&places_.back());
    return end - size;
}

std::string Records::damage() const {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    for (const Place &place : places_) {
        const bool intact =
            std::all_of(place.pages + page, place.begin, [](unsigned char byte) { return byte == untouched; });
        if (!intact) return std::string("wrote before '") + place.name + "'";
    }
    return {};
}

void watch_records(int report) {
    watched.report = report;
    struct sigaction action {};
    action.sa_sigaction = tell_access;
    action.sa_flags = SA_SIGINFO;
    for (const int number : {SIGSEGV, SIGBUS}) sigaction(number, &action, nullptr);
}

bool is_without_end(const char *text, std::size_t size) {
    return std::memchr(text, '\0', size) == nullptr;
}

}  // namespace cardsim
