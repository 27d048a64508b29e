// Counts the allocations of operator new (nothrow) in this program and makes one of them fail.
#pragma once

namespace kelconf {

// Starts counting at 0. The `failing`th allocation from now (the first is 1) returns null;
// 0: none does.
void countNew(int failing);
// Allocations since countNew; no allocation fails after this call.
int stopCountingNew();

} // namespace kelconf
