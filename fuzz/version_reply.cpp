// The version-check reply of the update server on arbitrary bytes: the version between "BEGIN"
// and "END", then the newer-version rule against this program's version.
#include "fuzz_bench.h"
#include "log/version.h"
#include "update/version_check.h"

using namespace postiq;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::optional<QString> version =
        versionInReply(QByteArray(reinterpret_cast<const char*>(data), qsizetype(size)));
    if (version)
        isNewerVersion(*version, kVersionMajor, kVersionMinor);
    return 0;
}
