#!/bin/sh
# One keep-alive of the machine's watchdog. Closed without the letter V it goes on counting.
[ -c /dev/watchdog ] || exit 0
printf . >/dev/watchdog
