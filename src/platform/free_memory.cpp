#include "platform/free_memory.h"

#include <malloc.h>

namespace postiq {

void ReturnFreeMemory() { ::malloc_trim(0); }

} // namespace postiq
