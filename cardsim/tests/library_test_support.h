/// What the tests of the card's library share: a card in a directory of its own, the library loaded for one test.
#ifndef CARDSIM_LIBRARY_TEST_SUPPORT_H
#define CARDSIM_LIBRARY_TEST_SUPPORT_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "brd_platform_access.h"
#include "card_description.h"
#include "card_state.h"
#include "files.h"
#include "fpd_description.h"
#include "fpd_upgrade_cookie.h"
#include "fpd_utility.h"

/// The program's divisor of its own times, which the library sets.
extern "C" uint32_t bootup_fpd_time_div;

namespace cardsim {

/// How many files this process has open.
size_t open_files();

/// The closed libraries' functions of one loaded copy of the library.
class Library {
    void *handle_;
    void *find(const char *name) const;

  public:
    explicit Library(const std::filesystem::path &copy);

#define CARDSIM_FUNCTION(name) decltype(&::name) name = reinterpret_cast<decltype(&::name)>(find(#name))
    CARDSIM_FUNCTION(brd_sb_attribute_flag_set);
    CARDSIM_FUNCTION(brd_local_card_group_id_get);
    CARDSIM_FUNCTION(brd_group_fpd_num_fpds_get);
    CARDSIM_FUNCTION(brd_group_fpd_obj_id_list_get);
    CARDSIM_FUNCTION(brd_fpd_num_regions_get);
    CARDSIM_FUNCTION(brd_fpd_regions_get);
    CARDSIM_FUNCTION(brd_fpd_info_get);
    CARDSIM_FUNCTION(brd_fpd_upgrade);
    CARDSIM_FUNCTION(brd_group_led_init);
    CARDSIM_FUNCTION(brd_group_led_num_leds_get);
    CARDSIM_FUNCTION(brd_group_led_obj_id_list_get);
    CARDSIM_FUNCTION(brd_led_type_get);
    CARDSIM_FUNCTION(brd_led_name_get);
    CARDSIM_FUNCTION(brd_led_current_color_get);
    CARDSIM_FUNCTION(brd_led_current_state_get);
    CARDSIM_FUNCTION(brd_led_state_and_color_set);
    CARDSIM_FUNCTION(brd_fru_hw_data_init);
    CARDSIM_FUNCTION(brd_fru_hw_init);
    CARDSIM_FUNCTION(get_fpd_capability_info);
    CARDSIM_FUNCTION(check_and_get_upgrade_image);
    CARDSIM_FUNCTION(exec_shell_command);
    CARDSIM_FUNCTION(brd_intf_fpd_image_md5_validate);
    CARDSIM_FUNCTION(brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config);
    CARDSIM_FUNCTION(brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config);
    CARDSIM_FUNCTION(brd_intf_fpd_upgrade_cookie_get_upgrade_mode);
    CARDSIM_FUNCTION(brd_intf_fpd_upgrade_cookie_set_upgrade_mode);
#undef CARDSIM_FUNCTION
};

/// The identity of the card of `card_table`, with two LEDs, 3 ("Status") and 4, and FPD 10 with the region "IoFpga",
/// running and programmed 1.2.0, image "io.img" 1.3.0 for upgrade type 0. What follows belongs to that region.
extern const std::string card_table;
extern const std::string leds;
extern const std::string io_fpga;

/// A call of the closed function of this name.
struct NamedCall {
    const char *function;
    std::function<void()> call;
};

/// A card of which a test describes more, and the library on it.
class LibraryTest : public ::testing::Test {
  protected:
    LibraryTest();
    ~LibraryTest() override;

    /// Writes the card's description and makes it the process's card; the default is card_table, leds and io_fpga.
    void describe(const std::string &toml);
    /// The library, loaded at the first use, from any thread.
    Library &library();
    /// Brings the hardware layer up, as a program must before it asks for FPDs.
    void start_hardware() { start_hardware(library()); }
    void start_hardware(Library &on);

    CardState saved_state() const;
    /// As another process would.
    void change_saved_state(const std::function<void(CardState &)> &change) const;
    std::filesystem::path state_directory() const { return directory_.path() / "state"; }
    std::filesystem::path package() const { return state_directory() / package_directory; }
    std::vector<std::string> recorded() const;

    /// The call ends the process with this line on standard error and in the card's abort.log.
    void expect_abort(const std::function<void()> &call, const std::string &line);
    /// Each call ends the process with the line "FUNCTION: REASON".
    void expect_all_abort(const std::string &reason, const std::vector<NamedCall> &calls);

    FruHwData identity() const;
    /// The card's own: 1.2.
    static FpdVersion hw_version(uint8_t kind = FPD_VERSION_NORMAL);
    FpdDescRequest description_request(const std::string &name, uint32_t upgrade_type) const;
    FpdDesc description_result() const;

    char err_msg[256] = {};

  private:
    card_tests::TemporaryDirectory directory_{"cardsim-test"};
    std::once_flag loaded_;
    std::unique_ptr<Library> library_;
};

/// What a progress callback was told, and by whom.
struct Reports {
    std::vector<int> percents;
    std::function<void(int)> then;  ///< called with each report, when it is set

    static void receive(void *context, int percent);
};

/// An upgrade of a region with an image of the package.
BrdFpdUpgradeRequest upgrade_request(uint8_t region, const std::filesystem::path &directory, const std::string &file,
                                     Reports &reports);

}  // namespace cardsim

#endif
