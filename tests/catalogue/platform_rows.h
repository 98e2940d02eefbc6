/// What is logged about the card's platform: its identity, its LED, its events.
#ifndef PLATFORM_ROWS_H
#define PLATFORM_ROWS_H

#include "message_row.h"

namespace catalogue {

using enum Level;

inline constexpr LogRow bootstrap_rows[] = {
    {error, "BootstrapFileNotFound", "Bootstrap File %s is not found error %s"},
    {error, "BootstrapFileOpenFail", "Bootstrap File %s is not found error %s"},
    {error, "KeyLengthTooLong", "Failed parsing, key length is too long"},
    {error, "FieldisNotFound", "Bootstrp field %s is not found"},
};

inline constexpr LogRow brd_rows[] = {
    {error, "BoardTypeGetFail", "Failed to get Card Board Type"},
    {error, "BrdInitGroupTypeGetFail", "Failed to get Card BRD Group Type rc %d"},
    {error, "BrdInitCardHWVersionGetFail", "Failed to get Card HW Version rc %d"},
    {error, "BrdInitPdSlotNumGetFail", "Failed to get PD slot num rc %d"},
    {error, "BrdInitMyCardPIDGetFail", "Failed to get my Card PID rc %d"},
    {error, "BrdInitHwBoardTyepGetFail", "Failed to get HW Board Type Type"},
};

inline constexpr LogRow events_rows[] = {
    {error, "AutoFpdUpgradeStartedEvent", "Sending Auto FPD Started Event failed error %s"},
    {error, "AutoFpdUpgradeProgressEvent", "Sending Auto FPD Progressing Event failed error %s"},
    {error, "AutoFpdUpgradeEndedEvent", "Sending Auto FPD Ended Event failed error %s"},
    {error, "AutoFpdUpgradeEventWarning", "Sending Auto FPD Event warning message failed error %s"},
    {error, "AutoFpdUpgradeEventError", "Sending Auto FPD Event error message failed error %s"},
    {error, "AutoFpdUpgradeEventFatal", "Sending Auto FPD Event Fatal message failed error %s"},
    {error, "SendUnknownEvent", "Unknown Auto FPD Upgrade event"},
};

inline constexpr LogRow led_rows[] = {
    {error, "NumLedGetFail", "Failed to get number of LEDs for group rc %d"},
    {error, "LedObjMemoryAllocFail", "Failed to allocated memory for LED object error %s"},
    {error, "LedObjGetFail", "Failed to get led_obj_id_list, rc:%d"},
    {error, "LedObjTypeGetFail", "Failed to get led_type from obj_id, rc:%d"},
    {error, "LedObjNameGetFail", "Failed to get led_name from obj_id, rc:%d"},
    {error, "GetLedStateAndColorInvalArg", "Invalid argument state_p %p color_p %p"},
    {error, "GetLedColorFailed", "Getting LED color failed rc:%d"},
    {error, "GetLedStateFailed", "Getting LED state failed rc:%d"},
    {info, "GetLedStateAndColor", "LED State %s and Color %s"},
    {info, "SetLedStateAndColor", "Setting LED State %s and Color %s"},
    {error, "SetLedStateAndColorFailed", "Setting LED state and color failed rc:%d"},
};

inline constexpr LogRow upgrade_led_rows[] = {
    {error, "LedGroupInitFail", "BRD LED Group Init failed error %s", "preparing the LED group gives 0 in every case"},
    {error, "GetLedObjIdFail", "BRD status LED Object id get failed error %s"},
    {error, "BrdIntfLenInvalidObjId", "Does not have valid Group id %d obj id %d to send LED state"},
    {error, "BrdIntfLedStateColorGetFail", "BRD LED state and color get failed error %s"},
    {debug, "BrdIntfLedStateColorGet", "Current LED state %s and color %s"},
    {error, "BrdIntfOrgLedStateColorGetFail", "BRD LED state and color get failed error %s"},
    {info, "BrdIntfLedStateColorGet2", "Original LED state %s and color %s"},
    {error, "BrdIntfLedStateColorSetFail", "BRD LED state and color get failed error %s"},
};

}  // namespace catalogue

#endif
