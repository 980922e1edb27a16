#include "platform/test_trust.h"

#include <QtGlobal>

namespace postiq {

QString TestCaFile() { return qEnvironmentVariable(kTestCaFileVariable); }

} // namespace postiq
