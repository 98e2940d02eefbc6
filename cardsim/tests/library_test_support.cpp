#include "library_test_support.h"

#include <dlfcn.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>

__attribute__((visibility("default"))) uint32_t bootup_fpd_time_div = 1;

namespace cardsim {

using card_tests::lines_of;
using card_tests::names_in;
using card_tests::read_file;
using card_tests::write_file;

const std::string card_table = R"([card]
group = 7
board_type = 4711
hw_version = [1, 2]
slot = 2
pid = "SIM-LC24"
)";

const std::string leds = R"(
[[led]]
id = 3
name = "Status"
state = 2
color = 4
[[led]]
id = 4
type = 9
name = "Uplink with a long name"
)";

const std::string io_fpga = R"(
[[fpd]]
id = 10
[[fpd.region]]
name = "IoFpga"
running = "1.2.0"
activation = 5
sequence = 3
info_flag = 6
capabilities = 0x808
duration = 0.04
reports = 4
[[fpd.region.image]]
type = 0
version = "1.3.0"
file = "io.img"
)";

size_t open_files() {
    return names_in("/proc/self/fd").size();
}

Library::Library(const std::filesystem::path &copy)
    : handle_((std::filesystem::copy_file(CARDSIM_LIBRARY, copy), dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL))) {}

void *Library::find(const char *name) const {
    void *const function = handle_ == nullptr ? nullptr : dlsym(handle_, name);
    if (function == nullptr) throw std::runtime_error(dlerror());
    return function;
}

LibraryTest::LibraryTest() {
    // The aborts that are expected leave no core files behind.
    const rlimit no_core = {0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    std::filesystem::create_directories(package());
    write_file(package() / "io.img", "the image of the I/O FPGA");
    setenv("CARDSIM_STATE", state_directory().c_str(), 1);
    unsetenv("CARDSIM_SPEED");
    bootup_fpd_time_div = 1;
    describe(card_table + leds + io_fpga);
}

LibraryTest::~LibraryTest() {
    unsetenv("CARDSIM_CARD");
    unsetenv("CARDSIM_STATE");
    unsetenv("CARDSIM_SPEED");
}

void LibraryTest::describe(const std::string &toml) {
    const auto file = directory_.path() / "card.toml";
    write_file(file, toml);
    setenv("CARDSIM_CARD", file.c_str(), 1);
}

Library &LibraryTest::library() {
    std::call_once(loaded_, [&] { library_ = std::make_unique<Library>(directory_.path() / "libcardsim.so"); });
    return *library_;
}

void LibraryTest::start_hardware(Library &on) {
    FruHwData data = identity();
    uint32_t handle = 0;
    ASSERT_EQ(on.brd_fru_hw_data_init(0, 0, &data, &handle), 0);
    ASSERT_EQ(on.brd_fru_hw_init(handle), 0);
}

CardState LibraryTest::saved_state() const {
    return load_state(StateDirectory(state_directory()), load_card_description(directory_.path() / "card.toml"));
}

void LibraryTest::change_saved_state(const std::function<void(CardState &)> &change) const {
    CardState state = saved_state();
    change(state);
    save_state(StateDirectory(state_directory()), state);
}

std::vector<std::string> LibraryTest::recorded() const {
    return lines_of(read_file(state_directory() / calls_log));
}

void LibraryTest::expect_abort(const std::function<void()> &call, const std::string &line) {
    library();
    std::filesystem::remove(state_directory() / abort_log);
    EXPECT_EXIT(call(), ::testing::KilledBySignal(SIGABRT), ::testing::HasSubstr("cardsim: " + line + "\n"));
    EXPECT_EQ(read_file(state_directory() / abort_log), "cardsim: " + line + "\n");
}

void LibraryTest::expect_all_abort(const std::string &reason, const std::vector<NamedCall> &calls) {
    for (const NamedCall &call : calls) expect_abort(call.call, call.function + std::string(": ") + reason);
}

FruHwData LibraryTest::identity() const {
    FruHwData data = {};
    data.group_type = 15;
    data.hw_major = 1;
    data.hw_minor = 2;
    data.pd_slot_num = 2;
    std::strcpy(data.card_pid, "SIM-LC24");
    data.board_type = 4711;
    data.valid = 1;
    return data;
}

FpdVersion LibraryTest::hw_version(uint8_t kind) {
    FpdVersion version = {};
    version.kind = kind;
    version.major = 1;
    version.minor = 2;
    return version;
}

FpdDescRequest LibraryTest::description_request(const std::string &name, uint32_t upgrade_type) const {
    FpdDescRequest request = {};
    request.board_type = 4711;
    request.hw_version = hw_version();
    request.programmed_version.major = 1;
    request.programmed_version.minor = 2;
    request.running_version = request.programmed_version;
    name.copy(request.name, sizeof request.name - 1);
    request.info_flag = 6;
    request.magic = FPD_DESC_MAGIC;
    request.version = FPD_DESC_VERSION;
    request.upgrade_type = upgrade_type;
    return request;
}

FpdDesc LibraryTest::description_result() const {
    FpdDesc result = {};
    result.magic = FPD_DESC_MAGIC;
    result.version = FPD_DESC_VERSION;
    return result;
}

void Reports::receive(void *context, int percent) {
    auto &reports = *static_cast<Reports *>(context);
    reports.percents.push_back(percent);
    if (reports.then) {
        reports.then(percent);
    }
}

BrdFpdUpgradeRequest upgrade_request(uint8_t region, const std::filesystem::path &directory, const std::string &file,
                                     Reports &reports) {
    BrdFpdUpgradeRequest request = {};
    request.region = region;
    request.context = &reports;
    request.progress = Reports::receive;
    directory.string().copy(request.directory, sizeof request.directory - 1);
    file.copy(request.file_name, sizeof request.file_name - 1);
    return request;
}

}  // namespace cardsim
