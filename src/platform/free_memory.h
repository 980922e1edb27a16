#pragma once

namespace postiq {

// Hands the memory freed inside the process back to the system. After large messages the
// allocator keeps what they used for later; without this the program would stay at its peak size
// long after a burst.
void ReturnFreeMemory();

} // namespace postiq
