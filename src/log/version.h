#pragma once

#include <QString>

namespace postiq {

inline constexpr int kVersionMajor = 3;
inline constexpr int kVersionMinor = 0;

// Major "." minor of the running program, e.g. "3.0".
inline QString AppVersion()
{
    return QString::number(kVersionMajor) + '.' + QString::number(kVersionMinor);
}

// The product's web presence: greeting, notices, the installation record, the help entry and
// the version check all name it. It lies under a reserved example domain on purpose, so that no
// real third party is ever contacted.
struct ProductWeb {
    const char* host;
    const char* address;
};
inline constexpr ProductWeb kProductWeb{"www.postiq.example", "http://www.postiq.example/"};

inline constexpr char kRightsNotice[] = "Copyright (C) The Postiq developers";

} // namespace postiq
