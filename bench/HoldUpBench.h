// How long the unit's supply must bridge a power failure.
#pragma once

/// Lets power fail in events of 30 s of the simulated car, with working and backup directory on a RAM disk, `rounds`
/// times near the event's end and as often at its beginning, and prints where the time went. Exit status.
int MeasureHoldUp(int rounds);
