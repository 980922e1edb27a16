#pragma once

namespace postiq {

// Hands the memory freed inside the process back to the system. After large messages the
// allocator keeps what they used for later; without this the program would stay at its peak size
// long after a burst.
void ReturnFreeMemory();

// Once start-up is over: lets go of the pages that only the dynamic loader read (the symbol and
// relocation tables at the head of each library, all bound at load) and of the heap that start-up
// freed. The libraries' code and data stay; a table page that is read again (a module loaded
// later looks symbols up) comes back from the file as any page does.
void ReleaseStartUpPages();

} // namespace postiq
