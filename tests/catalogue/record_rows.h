/// What is logged about the upgrade marker and the event log on the flash.
#ifndef RECORD_ROWS_H
#define RECORD_ROWS_H

#include "message_row.h"

namespace catalogue {

using enum Level;

inline constexpr LogRow marker_rows[] = {
    {error, "UpgMarkerCallocFail", "Unable to allocate memory for upgrade marker, error %s"},
    {error, "UpgMarkerReallocFail", "Unable to allocate memory for upgrade marker, error %s"},
    {error, "AddFpdInfoUpgMarkerOOB", "Out of buffer to add FPD info for %s"},
    {info, "UpgMarkerCheck", "Previous Marked FPDs to Upgrade\n%s\nCurren Upgrading FPDs\n%s"},
    {debug, "WriteUpgMarkerData", "Writing Upgrade Marker Data\n%s"},
};

inline constexpr LogRow obfl_rows[] = {
    {error, "ObflLog", "Failed to open FPD OBFL log file %s, error %s"},
    {error, "GetFpdObflLogFilename", "Failed to get FPD OBFL Filename, error '%s'"},
    {error, "CopyTempObflLogIntoLatestFlashFileFail",
     "Failed to copy temporary OBFL log into latest flash file, error '%s'"},
    {error, "StartObflMountThreadFail", "Failed to start OBFL flash mount thread, error '%s;"},
    {error, "CopyTempObflLogIntoLatestFlashFileFaile",
     "Failed to copy temporary OBFL log into latest flash file, error '%s'"},
    {debug, "ObflMountThreadHdlr", "OBFL Mount Thread Hanlder"},
    {error, "ObflMountThreadHdlrFlashOperFail", "Failed to mount OBFL Flash, error '%s'"},
    {error, "ObflUnknownOperation", "OBFL Flash Unknown Operation %d"},
    {error, "ObflOperCmdFail", "%s"},
    {debug, "ObflOperCmd", "Executed OBFL Flashoperation command '%s' output '%s'"},
    {info, "ObflMountPointNotExist", "OBFL Flash mountpoint '%s' doesn't exist, '%s'"},
    {info, "ObflMountPointExist", "OBFL Flash mountpoint '%s' exist, output '%s'"},
    {error, "ObflFlushFlashOperFail", "Failed to unmount OBFL Flash, error '%s'"},
};

}  // namespace catalogue

#endif
