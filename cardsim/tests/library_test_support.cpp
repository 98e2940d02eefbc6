#include "library_test_support.h"

#include <dlfcn.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

__attribute__((visibility("default"))) uint32_t bootup_fpd_time_div = 1;

namespace cardsim {

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

namespace {

template <typename Function>
void find(void *library, const char *name, Function &function) {
    function = reinterpret_cast<Function>(dlsym(library, name));
    if (function == nullptr) {
        throw std::runtime_error(dlerror());
    }
}

}  // namespace

TestDirectory::TestDirectory() {
    std::string name = (std::filesystem::temp_directory_path() / "cardsim-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error(std::strerror(errno));
    }
    path = std::filesystem::canonical(name);
}

TestDirectory::~TestDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

void write_file(const std::filesystem::path &file, const std::string &content) {
    std::ofstream(file, std::ios::binary) << content;
}

std::string read_file(const std::filesystem::path &file) {
    std::ostringstream content;
    content << std::ifstream(file, std::ios::binary).rdbuf();
    return content.str();
}

std::vector<std::string> names_in(const std::filesystem::path &directory) {
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(directory)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

size_t open_files() {
    return names_in("/proc/self/fd").size();
}

Library::Library(const std::filesystem::path &copy) {
    std::filesystem::copy_file(CARDSIM_LIBRARY, copy);
    void *library = dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        throw std::runtime_error(dlerror());
    }
#define CARDSIM_FIND(name) find(library, #name, this->name)
    CARDSIM_FIND(brd_sb_attribute_flag_set);
    CARDSIM_FIND(brd_local_card_group_id_get);
    CARDSIM_FIND(brd_group_fpd_num_fpds_get);
    CARDSIM_FIND(brd_group_fpd_obj_id_list_get);
    CARDSIM_FIND(brd_fpd_num_regions_get);
    CARDSIM_FIND(brd_fpd_regions_get);
    CARDSIM_FIND(brd_fpd_info_get);
    CARDSIM_FIND(brd_fpd_upgrade);
    CARDSIM_FIND(brd_group_led_init);
    CARDSIM_FIND(brd_group_led_num_leds_get);
    CARDSIM_FIND(brd_group_led_obj_id_list_get);
    CARDSIM_FIND(brd_led_type_get);
    CARDSIM_FIND(brd_led_name_get);
    CARDSIM_FIND(brd_led_current_color_get);
    CARDSIM_FIND(brd_led_current_state_get);
    CARDSIM_FIND(brd_led_state_and_color_set);
    CARDSIM_FIND(brd_fru_hw_data_init);
    CARDSIM_FIND(brd_fru_hw_init);
    CARDSIM_FIND(get_fpd_capability_info);
    CARDSIM_FIND(check_and_get_upgrade_image);
    CARDSIM_FIND(exec_shell_command);
    CARDSIM_FIND(brd_intf_fpd_image_md5_validate);
    CARDSIM_FIND(brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config);
    CARDSIM_FIND(brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config);
    CARDSIM_FIND(brd_intf_fpd_upgrade_cookie_get_upgrade_mode);
    CARDSIM_FIND(brd_intf_fpd_upgrade_cookie_set_upgrade_mode);
#undef CARDSIM_FIND
}

LibraryTest::LibraryTest() {
    // The loud ends that are expected leave no core files behind.
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
    const auto file = directory_.path / "card.toml";
    write_file(file, toml);
    setenv("CARDSIM_CARD", file.c_str(), 1);
}

Library &LibraryTest::library() {
    std::call_once(loaded_, [&] { library_ = std::make_unique<Library>(directory_.path / "libcardsim.so"); });
    return *library_;
}

void LibraryTest::start_hardware() {
    FruHwData data = identity();
    uint32_t handle = 0;
    ASSERT_EQ(library().brd_fru_hw_data_init(0, 0, &data, &handle), 0);
    ASSERT_EQ(library().brd_fru_hw_init(handle), 0);
}

CardDescription LibraryTest::described() const {
    CardDescription card;
    std::string error;
    EXPECT_EQ(load_card_description(directory_.path / "card.toml", card, error), 0) << error;
    return card;
}

CardState LibraryTest::saved_state() const {
    CardState state;
    std::string error;
    EXPECT_EQ(load_state(StateDirectory(state_directory()), described(), state, error), 0) << error;
    return state;
}

std::vector<std::string> LibraryTest::recorded() const {
    std::istringstream log(read_file(state_directory() / calls_log));
    std::vector<std::string> lines;
    for (std::string line; std::getline(log, line);) {
        lines.push_back(line);
    }
    return lines;
}

void LibraryTest::expect_loud(const std::function<void()> &call, const std::string &line) {
    library();
    std::filesystem::remove(state_directory() / abort_log);
    EXPECT_EXIT(call(), ::testing::KilledBySignal(SIGABRT), ::testing::HasSubstr("cardsim: " + line + "\n"));
    EXPECT_EQ(read_file(state_directory() / abort_log), "cardsim: " + line + "\n");
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
