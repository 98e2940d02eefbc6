#include "scripts.h"

#include <cstdio>

#include "sandbox.h"

namespace cardsim {
namespace {

std::string in_state(const char *name) {
    return std::string(state_path_inside) + "/" + name;
}

/// Leaves the call in `$line` and in scripts.log, with a single write so that calls at the same time stay lines.
std::string recording(const std::string &path_inside) {
    return "#!/bin/sh\n"
           "# Made from the card's description whenever the card is used; changes do not last.\n"
           "line='" +
           path_inside +
           "'\n"
           "for argument in \"$@\"; do\n"
           "    quoted=\n"
           "    while case $argument in *\\'*) true ;; *) false ;; esac; do\n"
           "        quoted=\"$quoted${argument%%\\'*}'\\\\''\"\n"
           "        argument=${argument#*\\'}\n"
           "    done\n"
           "    line=\"$line '$quoted$argument'\"\n"
           "done\n"
           "printf '%s\\n' \"$line\" >>" +
           in_state(scripts_log) + "\n";
}

std::string exit_with(int status) {
    return "exit " + std::to_string(status) + "\n";
}

std::string event_script(const CardDescription &card) {
    return recording("/usr/local/etc/send_fpd_doorbell_event.sh") + exit_with(card.scripts.event);
}

/// A script that fails has not done what it is for.
std::string watchdog_script(const CardDescription &card) {
    std::string text = recording("/usr/local/etc/punch-watchdog-once.sh");
    if (card.scripts.watchdog == 0) text += "printf . >>" + in_state(watchdog_punches) + "\n";
    return text + exit_with(card.scripts.watchdog);
}

std::string reset_script(const CardDescription &card) {
    std::string text = recording("/usr/local/etc/reset_board.sh");
    if (card.scripts.reset == 0) {
        text += "printf '%s\\n' \"$line\" >>" + in_state(reset_request) + "\n";
    }
    return text + exit_with(card.scripts.reset);
}

std::string grub_reboot_script(const CardDescription &card) {
    return recording("/usr/sbin/grub-reboot") + exit_with(card.scripts.grub_reboot);
}

std::string seconds(double time, uint32_t speed) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", time / speed);
    return text;
}

std::string check_flash_script(const CardDescription &card, uint32_t speed) {
    const std::string refuse = "echo \"check-flash: cannot $1 obfl\" >&2; exit 1";
    const std::string mount_command =
        std::string("mountpoint -q /mnt/obfl || exec mount -n --bind ") + sandbox_flash_path + " /mnt/obfl";
    return recording("/usr/sbin/check-flash") +
           "case \"$*\" in\n"
           "'start obfl')\n"
           "    sleep " +
           seconds(card.obfl.mount_time, speed) +
           "\n"
           "    " +
           (card.obfl.mount_fails ? refuse : mount_command) +
           "\n"
           "    ;;\n"
           "'stop obfl')\n"
           "    " +
           (card.obfl.unmount_fails ? refuse : "exec umount -n /mnt/obfl") +
           "\n"
           "    ;;\n"
           "*)\n"
           "    echo 'usage: check-flash start|stop obfl' >&2\n"
           "    exit 2\n"
           "    ;;\n"
           "esac\n";
}

}  // namespace

std::vector<Script> card_scripts(const CardDescription &card, uint32_t speed) {
    return {
        {"etc/send_fpd_doorbell_event.sh", event_script(card)},
        {"etc/punch-watchdog-once.sh", watchdog_script(card)},
        {"etc/reset_board.sh", reset_script(card)},
        {"bin/check-flash", check_flash_script(card, speed)},
        {"bin/grub-reboot", grub_reboot_script(card)},
    };
}

}  // namespace cardsim
