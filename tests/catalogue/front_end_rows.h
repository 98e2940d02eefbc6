/// What the front end prints. Nothing else of the tool prints at all.
#ifndef FRONT_END_ROWS_H
#define FRONT_END_ROWS_H

#include "message_row.h"

namespace catalogue {

inline constexpr std::string_view no_such_command = "the card commands are reached with one of theirs alone";

inline constexpr AnswerRow front_end_rows[] = {
    // parsing
    {Stream::out,
     "Usage: %s -h | -c {check_upgrade | upgrade | list_upgrade | get_config | "
     "set_config={enable|disable}get_upgrade_mode "
     "|set_upgrade_mode={regular|mfg|dummy-minor-version|dummy-major-version}[-b]}\n"
     "    -h: Display this usage output\n"
     "    -c check_upgrade: Checks whether any FPD available that need to be upgrade.\n"
     "         Returns: 0 - None FPD upgrade required\n"
     "                  1 - FPD upgrade available\n"
     "                 -1 - Error check for FPD upgrade\n"
     "    -c upgrade: Upgrades all availabe FPDs that need to be upgraded and reloads the card if any of FPD required "
     "to "
     "activating it\n"
     "    -c list_upgrade: Lists all available FPD upgrades.\n"
     "    -c get_config: Get the Auto FPD Upgrade cookie config\n"
     "    -c set_config: Set the Auto FPD Upgrade cookie config enable or disable\n"
     "    -c get_upgrade_mode: Get the FPD Upgrade Mode\n"
     "    -c set_upgrade_mode: Set the FPD Upgrade Mode to one of 'regular' or 'mfg' or 'dummy-minor-version' or "
     "'dummy-major-version'    -b: Optional argument, Backend level, Use this tool at runtime on backend.\n"
     "\n"},
    {Stream::err, "Unknown Command Subopt, rc %d\n"},
    {Stream::err, "set_config can't be empty\n\n\n"},
    {Stream::err, "Invalid set_config value\n\n\n"},
    {Stream::err, "Invalid set_upgrade_mode value\n\n\n"},
    // start
    {Stream::err, "Init Auto FPD Upgrade interface library\n", "marking the interface as initialised cannot fail"},
    {Stream::err, "Getting Auto FPD Upgrade configuration is failed, %s\n"},
    // configuration commands
    {Stream::out, "Auto FPD Upgrade Config is %s\n"},
    {Stream::out, "Auto FPD Upgrade Config updated from %s to %s\n"},
    {Stream::err, "Setting Auto FPD Upgrade configuration is failed, %s\n"},
    {Stream::out, "FPD Upgrade Mode: %s\n"},
    {Stream::err, "Getting FPD Upgrade Mode failed, %s\n"},
    {Stream::out, "FPD Upgrade Mode updated to %s\n"},
    {Stream::err, "Setting FPD Upgrade Mode is failed, %s\n"},
    {Stream::out, "Auto FPD Upgrade is Disabled\n"},
    // card commands
    {Stream::err, "Local Card Auto FPD Upgrade Context Init failed err_msg %s\n"},
    {Stream::err, "Local Card Auto FPD Upgrade Interface Init failed err_msg %s\n"},
    {Stream::err, "FPD Upgrade failed\n"},
    {Stream::out, "Auto FPD Upgrade done\n"},
    {Stream::out, "FPD available that need to be upgraded\n"},
    {Stream::out, "FPD name         Available Version\n"},
    {Stream::out, "%-16s %s\n"},
    {Stream::err, "Invalid test command\n", no_such_command},
    {Stream::err, "Unknown test command %d\n", no_such_command},
    {Stream::err, "Local Card Auto FPD Upgrade Interface Deinit failed err_msg %s\n"},
    {Stream::err, "Local Card Auto FPD Upgrade Context Deinit failed err_msg %s\n",
     "freeing the context gives 0 in every case"},
};

}  // namespace catalogue

#endif
