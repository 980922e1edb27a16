#pragma once

namespace postiq {

class Desktop;
class Registry;

// The installation record kept in the registry: records of an old version are offered for removal,
// another installed version is reported, and a first run writes the record.
void maintainInstallationRecord(Registry& registry, Desktop& desktop);

} // namespace postiq
