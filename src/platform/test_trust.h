#pragma once

#include <QString>

namespace postiq {

// The environment variable that names a file of extra certificate authorities (PEM) to trust
// besides the system's store. Meant for tests, which run their own authority on loop-back, so
// that they never need to switch verification off.
inline constexpr char kTestCaFileVariable[] = "POSTIQ_TEST_CA_FILE";

// The file named by that variable, or empty text.
QString TestCaFile();

} // namespace postiq
