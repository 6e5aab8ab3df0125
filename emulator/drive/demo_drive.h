// What a new demo user finds: files to open, names to trip over, a folder of several pages, and
// something shared by a colleague.
// Threads: none of its own. Lifetime: nothing is kept.
#pragma once

#include "emulator/drive/drive.h"

namespace emulator {

void SeedDemoDrives(Drive& user, Drive& colleague);

}  // namespace emulator
