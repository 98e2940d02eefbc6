#include "template.h"

#include <fcntl.h>

#include <cerrno>

#include "card_place.h"
#include "file_text.h"
#include "images.h"

namespace fs = std::filesystem;

namespace cardsim {
namespace {

constexpr const char *card_text =
    R"toml(# A card. `cardsim show DIR` shows it, `cardsim boot DIR` powers it on, `cardsim exec DIR -- COMMAND` runs a command on
# it. A key that is commented out has the value shown here.

[card]
group = 3                         # group id of the platform-access library, not 0
board_type = 0x3118               # code of the card model
hw_version = [1, 0]               # major, minor
slot = 2
pid = "SIM-LC2"                   # product identifier
# startup = "bootup_fpd -c upgrade"  # what the start-up scripts run, by the shell
# bootstrap = "PD_CARD_TYPE=1\n"  # the bootstrap key file as it stands, instead of one made from the keys above
# auto_upgrade = 1                # stored configuration: 1 enabled, 0 disabled
# upgrade_mode = "regular"        # stored: "regular", "mfg", "dummy-minor-version", "dummy-major-version", or a number
# allow_duplicate_names = false   # true: two regions may have one name

# [watchdog]                      # armed when the table is here
# timeout = 60.0                  # seconds without a punch after which the card reloads

[obfl]                            # the flash of the event log
mounted = false                   # true: mounted before the start-up command starts
mount_time = 2.0                  # seconds that the mount command takes
# mount_fails = false
# unmount_fails = false

# [scripts]                       # exit statuses of the card's commands
# event = 0
# watchdog = 0
# reset = 0                       # another status: the card does not reload
# grub_reboot = 0

[[led]]
id = 1
type = 1                          # only LEDs of type 1 can be the status LED
name = "Status"
state = 2                         # 1 off, 2 steady, 3 blinking
color = 2                         # 1 red, 2 green, 3 blue, 4 amber, 5 yellow

[[fpd]]                           # one programmable device; as many as the card has
id = 10                           # its object id

[[fpd.region]]                    # its regions, in index order
name = "IoFpga"
running = "1.2.0"                 # major.minor.debug
# programmed = "1.2.0"            # in flash, runs after the next reload; default: the running version
upgrade_type = 1                  # 1 upgradeable, 5 in manufacturing only, others not
activation = 5                    # what makes new firmware run: 5 a reset, 1 3 4 6 a reset of the whole card, 0 nothing
sequence = 0                      # default sequence number: lower ones are upgraded first
# info_flag = 0                   # handed to the FPD description library
capabilities = 0x8                # 0x1 never upgraded by itself, 0x8 at boot, 0x800 can unlock Golden,
                                  # 0x1000 requires a Golden-unlocked primary
duration = 5.0                    # seconds an upgrade takes
reports = 10                      # progress reports of an upgrade, 0 to 100

[[fpd.region.image]]              # what is packaged, one for each requested upgrade type
type = 0                          # 0 regular, 1 manufacturing, 2 unlocks Golden, 3 dummy minor, 4 dummy major
version = "1.3.0"                 # also "1.3" (no debug part) or "unknown"
file = "iofpga-1.3.0.img"         # in images/ beside this file; one that is not there is made up
# size = 65536                    # bytes of a made-up image
# depends_on = "BootRom"          # this region is upgraded first when it needs it
# minimum = "1.0.0"               # an older running version cannot be upgraded
# md5 = "auto"                    # or hex text: what the package claims the sum to be
# need_upgrade = "auto"           # auto: the programmed version is another one; or true, false
# status_msg = "..."              # text of the verdict

# [[fpd.region.fault]]            # what goes wrong with an upgrade of this region
# attempt = 1                     # n-th upgrade on a boot; absent: every one
# kind = "fail"                   # fail, hang, slow, or does_not_stick (falls back at the next reload)
# at = 50                         # fail, hang: at this percentage; -1 or absent: before the first report
# code = 5                        # fail: the result
# text = "flash timeout"          # fail: the reason
# every = 20.0                    # slow: seconds between two reports
# cancellable = true              # hang: false ignores the cancellation and ends after hang_time, as a success
# hang_time = 30.0                # seconds

[[fpd]]
id = 11

[[fpd.region]]
name = "BootRom"
running = "4.0.1"
activation = 3
sequence = 1
duration = 3.0

[[fpd.region.image]]
type = 0
version = "4.1.0"
file = "bootrom-4.1.0.img"
depends_on = "IoFpga"

# [[fault]]                       # a function of the closed libraries that fails
# call = "brd_led_type_get"
# nth = 1                         # its n-th call in a process; absent: every one
# boot = 1                        # only on this boot; absent: on every one
# code = 5                        # what it returns
# text = "no answer"              # its reason, where the function gives one
)toml";

void check_absent_or_empty(const fs::path &directory) {
    const fs::file_status status = fs::status(directory);
    if (!fs::exists(status)) return;
    if (!fs::is_directory(status)) throw Error(directory.string() + ": exists and is not a directory");
    if (!fs::is_empty(directory)) throw Error(directory.string() + ": exists and is not empty");
}

Descriptor new_file(const fs::path &path) {
    Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (!file.is_open()) throw system_error(path.string(), errno);
    return file;
}

}  // namespace

void make_card(const fs::path &directory) {
    check_absent_or_empty(directory);
    fs::create_directories(directory / "images");
    write_all(new_file(directory / "card.toml"), directory / "card.toml", card_text);
    const CardPlace place = find_card(directory, {});
    for (const FpdDescription &fpd : place.description.fpds) {
        for (const RegionDescription &region : fpd.regions) {
            for (const ImageDescription &image : region.images) {
                const fs::path path = place.images / image.file;
                write_image(new_file(path), path, image.file, image.size);
            }
        }
    }
}

}  // namespace cardsim
