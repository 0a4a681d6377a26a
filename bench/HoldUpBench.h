// How long the unit's supply must bridge a power failure.
#pragma once

#include <string>
#include <vector>

/// Lets power fail in events of 30 s of the simulated car, with working and backup directory on a RAM disk, `rounds`
/// times near the event's end and as often at its beginning, and prints where the time went. Exit status.
int MeasureHoldUp(int rounds);
/// The same with the backup directory in `dir`, a disk, for events as the recorder collects them: 15 s before the
/// request and 15 s behind it. One at each of the moments, in milliseconds behind the request; `copyAheadMBps` as in
/// the manager's configuration, 0 for none. Exit status.
int MeasureHoldUpOnDisk(const std::string& dir, double copyAheadMBps, const std::vector<int>& momentsMs);
