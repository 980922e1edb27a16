#pragma once

namespace postiq {

// Loads libldns on the first call (later calls only answer); false when the library cannot be
// loaded, and then no lookup may call into it.
bool LdnsLoaded();

} // namespace postiq
