// Cold or warm start: the boot-state marker that the router's scripts leave before a restart.
#ifndef LEISOBEK_NOTIFY_BOOT_STATE_H
#define LEISOBEK_NOTIFY_BOOT_STATE_H

#include <cstdio>

// Where the router leaves the marker of a warm start.
constexpr const char BOOT_STATE_MARKER[] = "/mnt/configcert/config/snmpbootstat";

// Reads the marker's lines (at most 99 characters at a time) until one
// contains "warmstart" or the stream ends. Returns true when such a line was
// found. The answer does not change the notification: the marker's presence
// alone means a warm start; the word only ends the reading early.
bool boot_state_scan(FILE *marker);

// Announces the start from the marker at path through announce (called with
// "coldStart" or "warmStart") and removes the marker. Returns 1, or -1 without
// announcing anything or removing the marker when it exists but cannot be
// opened.
int boot_state_run(const char *path, int (*announce)(const char *notification));

// boot_state_run on BOOT_STATE_MARKER, sending the notification through ConfD.
// Called once at start-up.
int boot_state_notify(void);

#endif
